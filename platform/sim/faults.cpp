// SPDX-License-Identifier: MIT
#include <array>
#include <atomic>

#include "sim.h"

namespace sim
{
namespace
{

constexpr auto kOps = static_cast<size_t>(hdmi_sim::Op::count);

struct Slot {
    bool set = false;
    uint64_t serial = 0; ///< of the present fault, so that a blocked call notices another one
    hdmi_sim::Fault fault;
    int64_t calls = 0; ///< since the fault was set
    int64_t hits = 0;
};

struct Faults {
    mutex_t mutex;
    Condition changed;
    std::array<Slot, kOps> slots GUARDED_BY(mutex);
    /// Number of faults set: while it is 0, operations do not lock.
    std::atomic<int> in_force{0};
};

// Never destroyed: threads of the program under test may outlive main().
Faults& faults()
{
    static auto* instance = new Faults;
    return *instance;
}

bool is_write(hdmi_sim::Op op) { return op == hdmi_sim::Op::playback_write || op == hdmi_sim::Op::decoder_write; }
bool is_read(hdmi_sim::Op op) { return op == hdmi_sim::Op::capture_read || op == hdmi_sim::Op::decoder_read; }

bool applies(hdmi_sim::FaultKind kind, hdmi_sim::Op op)
{
    switch (kind) {
    case hdmi_sim::FaultKind::brief: return is_read(op) || is_write(op);
    case hdmi_sim::FaultKind::withhold: return is_write(op);
    default: return true;
    }
}

// Counts the call. @return whether the fault hits it.
bool hit(Slot& slot)
{
    const int64_t call = slot.calls++ - slot.fault.skip;
    if (call < 0 || (slot.fault.count >= 0 && call >= slot.fault.count))
        return false;
    slot.hits++;
    return true;
}

void clear_slot(Faults& f, Slot& slot) REQUIRES(f.mutex)
{
    if (slot.set)
        f.in_force--;
    slot.set = false;
    slot.serial++;
}

} // namespace

Verdict fault_verdict(hdmi_sim::Op op, const std::function<bool()>& ended)
{
    Faults& f = faults();
    if (f.in_force == 0)
        return {};
    mutex_guard guard(f.mutex);
    Slot& slot = f.slots[static_cast<size_t>(op)];
    if (!slot.set || !applies(slot.fault.kind, op) || !hit(slot))
        return {};
    const hdmi_sim::Fault fault = slot.fault;
    const uint64_t serial = slot.serial;
    switch (fault.kind) {
    case hdmi_sim::FaultKind::fail: return {true, fault.result, false, false, false};
    case hdmi_sim::FaultKind::brief: return {false, 0, true, fault.odd, false};
    case hdmi_sim::FaultKind::withhold: return {false, 0, false, false, true};
    case hdmi_sim::FaultKind::block: break;
    }
    while (slot.set && slot.serial == serial && !(ended && ended()))
        f.changed.wait_until(guard, kNever);
    return {};
}

void faults_wake()
{
    Faults& f = faults();
    // Under the lock, so that no blocked call is between its test and its wait.
    mutex_guard guard(f.mutex);
    f.changed.notify_all();
}

void faults_reset()
{
    Faults& f = faults();
    mutex_guard guard(f.mutex);
    for (Slot& slot : f.slots) {
        clear_slot(f, slot);
        slot.hits = 0;
    }
    f.changed.notify_all();
}

int brief_size(const Verdict& verdict, int size, int bytes_per_frame)
{
    if (!verdict.brief)
        return size;
    const int half = size / 2 / bytes_per_frame * bytes_per_frame;
    return verdict.odd && half > 0 ? half - 1 : half;
}

} // namespace sim

namespace hdmi_sim
{

void set_fault(Op op, const Fault& fault)
{
    sim::Faults& f = sim::faults();
    mutex_guard guard(f.mutex);
    sim::Slot& slot = f.slots[static_cast<size_t>(op)];
    sim::clear_slot(f, slot);
    slot.set = true;
    slot.fault = fault;
    slot.calls = 0;
    f.in_force++;
    f.changed.notify_all();
}

void clear_fault(Op op)
{
    sim::Faults& f = sim::faults();
    mutex_guard guard(f.mutex);
    sim::clear_slot(f, f.slots[static_cast<size_t>(op)]);
    f.changed.notify_all();
}

int64_t fault_hits(Op op)
{
    sim::Faults& f = sim::faults();
    mutex_guard guard(f.mutex);
    return f.slots[static_cast<size_t>(op)].hits;
}

} // namespace hdmi_sim
