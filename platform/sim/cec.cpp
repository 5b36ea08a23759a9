// SPDX-License-Identifier: MIT
#include "hdmi_cec.h"

#include "sim.h"

namespace sim
{
namespace
{

struct Cec {
    mutex_t mutex;
    std::vector<std::string> calls GUARDED_BY(mutex);
};

Cec& cec()
{
    static auto* instance = new Cec;
    return *instance;
}

int record(hdmi_sim::Op op, const char* name)
{
    {
        Cec& c = cec();
        mutex_guard guard(c.mutex);
        c.calls.emplace_back(name);
    }
    const Verdict verdict = fault_verdict(op);
    return verdict.fail ? verdict.result : 0;
}

} // namespace

void cec_reset()
{
    Cec& c = cec();
    mutex_guard guard(c.mutex);
    c.calls.clear();
}

} // namespace sim

namespace hdmi_sim
{

std::vector<std::string> cec_calls()
{
    sim::Cec& c = sim::cec();
    mutex_guard guard(c.mutex);
    return c.calls;
}

} // namespace hdmi_sim

extern "C" {

SIM_EXPORT int vendor_hdmi_cec_init(hdmi_cec_config_t*) { return sim::record(hdmi_sim::Op::cec_init, "init"); }
SIM_EXPORT int vendor_hdmi_cec_open_arc(void) { return sim::record(hdmi_sim::Op::cec_open_arc, "open_arc"); }
SIM_EXPORT int vendor_hdmi_cec_deinit(void) { return sim::record(hdmi_sim::Op::cec_deinit, "deinit"); }

} // extern "C"
