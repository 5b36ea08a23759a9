// SPDX-License-Identifier: MIT
// The audio return channel on the kernel's interface, with a stand-in for the kernel and its adapters.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "cec/cec_kernel.h"
#include "hdmi_cec.h"
#include "support/cec_text.h"
#include "support/eventually.h"

namespace
{

constexpr uint16_t kRoot = 0x0000;
constexpr char kAddressReport[] = "5f:84:10:00:05";

using hdmi_linux::ArcState;
using hdmi_linux::CecLink;

struct FakeAdapter {
    std::string path = "/dev/cec0";
    int open_error = 0;
    uint32_t capabilities = CEC_CAP_LOG_ADDRS | CEC_CAP_TRANSMIT;
    uint16_t physical_address = kRoot;
    cec_log_addrs logical = {};
    bool of_output = false;
};

FakeAdapter adapter_at(uint16_t physical_address, const std::string& path = "/dev/cec0")
{
    FakeAdapter adapter;
    adapter.path = path;
    adapter.physical_address = physical_address;
    return adapter;
}

FakeAdapter used_as(int type, const std::string& path = "/dev/cec0")
{
    FakeAdapter adapter = adapter_at(kRoot, path);
    adapter.logical.num_log_addrs = 1;
    adapter.logical.log_addr_type[0] = static_cast<uint8_t>(type);
    adapter.logical.log_addr_mask = type == CEC_LOG_ADDR_TYPE_TV ? CEC_LOG_ADDR_MASK_TV : CEC_LOG_ADDR_MASK_PLAYBACK;
    return adapter;
}

// Behaves as the kernel with an adapter, to which an audio system is connected.
class FakeKernel : public hdmi_linux::CecSystem
{
public:
    std::vector<std::string> devices() override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> paths;
        for (const FakeAdapter& adapter : adapters)
            paths.push_back(adapter.path);
        return paths;
    }
    int open(const char* path) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++opened;
        const auto found =
            std::find_if(adapters.begin(), adapters.end(), [&](const auto& a) { return a.path == path; });
        const int error = found == adapters.end() || gone_ ? ENOENT : found->open_error;
        if (error != 0) {
            errno = error;
            return -1;
        }
        current_ = &*found;
        events_.clear();
        inbox_.clear();
        fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        post_state(CEC_EVENT_FL_INITIAL_STATE);
        return fd_;
    }
    void close(int fd) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        EXPECT_EQ(fd_, fd);
        ::close(fd_);
        fd_ = -1;
    }
    int ioctl(int fd, unsigned long request, void* argument) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        EXPECT_EQ(fd_, fd);
        errno = gone_ ? ENODEV : answer(request, argument);
        return errno == 0 ? 0 : -1;
    }

    void set_gone(bool gone)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        gone_ = gone;
        wake();
    }
    // The claim of a TV's address ends, or it had ended before: an event tells of it in any case.
    void claim()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        claiming_ = false;
        current_->physical_address = kRoot;
        current_->logical.log_addr_mask = claimed_mask;
        post_state(0);
    }
    void unconfigure()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        current_->logical = {};
        post_state(0);
    }
    void post(const std::string& text)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        receive(text);
    }
    bool is_open() const { return fd_ >= 0; }
    bool lock(int fd) override
    {
        std::lock_guard<std::mutex> guard(mutex_);
        EXPECT_EQ(fd_, fd);
        errno = locked_by_another ? EWOULDBLOCK : 0;
        return !locked_by_another;
    }
    bool is_listening() const { return (mode_ & CEC_MODE_FOLLOWER_MSK) == CEC_MODE_FOLLOWER; }
    void set_adapter(const FakeAdapter& adapter)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        adapters[0] = adapter;
    }

    std::vector<FakeAdapter> adapters = {FakeAdapter()};
    std::atomic<int64_t> opened{0}; ///< times that an adapter was
    bool locked_by_another = false;
    uint16_t claimed_mask = CEC_LOG_ADDR_MASK_TV;
    bool claims_at_once = true;
    bool tells_fates = true;
    int transmit_error = 0;
    std::function<std::string(const std::string&)> audio_system = [](const std::string& message) -> std::string {
        return message == "05:83" ? kAddressReport : message == "05:c3" ? "50:c0" : message == "05:c4" ? "50:c5" : "";
    };

private:
    void wake()
    {
        const uint64_t one = 1;
        if (fd_ >= 0) {
            EXPECT_EQ(static_cast<ssize_t>(sizeof(one)), write(fd_, &one, sizeof(one)));
        }
    }
    // Keeps only the latest event, as the kernel does.
    void post_state(uint32_t flags)
    {
        cec_event event = {};
        event.event = CEC_EVENT_STATE_CHANGE;
        event.flags = flags;
        event.state_change.phys_addr = current_->physical_address;
        event.state_change.log_addr_mask = current_->logical.log_addr_mask;
        events_.assign(1, event);
        wake();
    }
    void receive(const std::string& text)
    {
        cec_msg message = {};
        const std::vector<uint8_t> bytes = parsed(text);
        message.len = static_cast<uint32_t>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), message.msg);
        message.rx_status = CEC_RX_STATUS_OK;
        inbox_.push_back(message);
        wake();
    }
    template <typename Type> static int take(std::vector<Type>* queue, void* argument)
    {
        if (queue->empty())
            return EAGAIN;
        memcpy(argument, &queue->front(), sizeof(Type));
        queue->erase(queue->begin());
        return 0;
    }
    int set_addresses(const cec_log_addrs& wanted)
    {
        if (claiming_ || (wanted.num_log_addrs != 0 && current_->logical.log_addr_mask != 0))
            return EBUSY;
        current_->logical = wanted;
        claiming_ = wanted.num_log_addrs != 0 && !claims_at_once;
        current_->logical.log_addr_mask = wanted.num_log_addrs != 0 && claims_at_once ? claimed_mask : 0;
        post_state(0);
        return 0;
    }
    int transmit(cec_msg* message)
    {
        if (transmit_error != 0)
            return transmit_error;
        message->sequence = ++sequence_;
        if (!tells_fates)
            return 0;
        cec_msg result = *message;
        result.tx_status = CEC_TX_STATUS_OK;
        inbox_.push_back(result);
        wake();
        const std::string reply = audio_system(printed(message->msg, message->len));
        if (!reply.empty())
            receive(reply);
        return 0;
    }
    int answer(unsigned long request, void* argument)
    {
        switch (request) {
        case CEC_ADAP_G_CAPS: static_cast<cec_caps*>(argument)->capabilities = current_->capabilities; return 0;
        case CEC_ADAP_G_PHYS_ADDR: memcpy(argument, &current_->physical_address, 2); return 0;
        case CEC_ADAP_G_LOG_ADDRS: *static_cast<cec_log_addrs*>(argument) = current_->logical; return 0;
        case CEC_ADAP_G_CONNECTOR_INFO:
            static_cast<cec_connector_info*>(argument)->type = current_->of_output ? CEC_CONNECTOR_TYPE_DRM : 0;
            return 0;
        case CEC_ADAP_S_PHYS_ADDR:
            memcpy(&current_->physical_address, argument, 2);
            post_state(0);
            return 0;
        case CEC_ADAP_S_LOG_ADDRS: return set_addresses(*static_cast<const cec_log_addrs*>(argument));
        case CEC_S_MODE: mode_ = *static_cast<uint32_t*>(argument); return 0;
        case CEC_TRANSMIT: return transmit(static_cast<cec_msg*>(argument));
        case CEC_DQEVENT: return take(&events_, argument);
        case CEC_RECEIVE: {
            uint64_t wakes;
            while (read(fd_, &wakes, sizeof(wakes)) > 0) {
            }
            if (!events_.empty())
                wake();
            return take(&inbox_, argument);
        }
        default: return ENOTTY;
        }
    }

    std::mutex mutex_;
    FakeAdapter* current_ = nullptr;
    std::atomic<int> fd_{-1};
    std::atomic<uint32_t> mode_{0};
    bool gone_ = false;
    bool claiming_ = false;
    uint32_t sequence_ = 0;
    std::vector<cec_event> events_;
    std::vector<cec_msg> inbox_;
};

class CecLinkTest : public testing::Test
{
protected:
    void open(const std::string& device = "", bool sets_address = false)
    {
        ASSERT_EQ(0, link.start({device, "", sets_address}));
        EXPECT_EQ(0, link.open_arc());
    }
    bool reaches(ArcState state) const
    {
        return eventually([&] { return link.stats().arc == state; });
    }
    bool activated(int64_t times) const
    {
        return eventually([&] { return link.stats().activations == times; });
    }
    void unplug()
    {
        kernel.set_gone(true);
        ASSERT_TRUE(eventually([&] { return link.stats().lost; }));
    }
    void expect_unconfigured() { EXPECT_EQ(0, kernel.adapters[0].logical.num_log_addrs); }

    FakeKernel kernel;
    CecLink link{&kernel};
};

std::string conversation(const CecLink& link)
{
    std::string all;
    for (const hdmi_linux::CecMessage& message : link.messages())
        all += (all.empty() ? "" : " ") + printed(message.bytes, message.length);
    return all;
}

TEST_F(CecLinkTest, OpensAndClosesTheChannelAndLeavesTheAdapterAsItWas)
{
    kernel.adapters[0].capabilities |= CEC_CAP_PHYS_ADDR;
    kernel.adapters[0].physical_address = CEC_PHYS_ADDR_INVALID;
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(0, link.start({}));
        EXPECT_EQ(-EALREADY, link.start({}));
        EXPECT_EQ(0, link.open_arc());
        ASSERT_TRUE(reaches(ArcState::active));
        kernel.post("40:8f");
        ASSERT_TRUE(eventually([&] { return link.stats().refusals == 1; }));
        EXPECT_EQ(1, link.stats().activations);
        EXPECT_EQ("/dev/cec0", link.stats().device);
        EXPECT_TRUE(link.stats().attached);
        link.stop();
        EXPECT_EQ("05:83 5f:84:10:00:05 05:c3 50:c0 05:c1 40:8f 04:00:8f:00 05:c4 50:c5 05:c2", conversation(link));
        EXPECT_EQ(ArcState::terminated, link.stats().arc);
        EXPECT_FALSE(link.stats().open);
        EXPECT_FALSE(kernel.is_open());
        expect_unconfigured();
        EXPECT_EQ(CEC_PHYS_ADDR_INVALID, kernel.adapters[0].physical_address);
    }
    EXPECT_EQ(-ENODEV, link.open_arc());
    link.stop();
}

TEST_F(CecLinkTest, UsesWhatAnotherProgramHasSetUpAndLeavesTheRestToIt)
{
    kernel.adapters = {used_as(CEC_LOG_ADDR_TYPE_TV)};
    open();
    kernel.post("40:8f");
    ASSERT_TRUE(reaches(ArcState::active));
    link.stop();
    EXPECT_EQ(std::string::npos, conversation(link).find("04:00:8f:00"));
    EXPECT_EQ(1, kernel.adapters[0].logical.num_log_addrs);
}

TEST_F(CecLinkTest, ChoosesTheAdapterOfATv)
{
    FakeAdapter denied;
    denied.open_error = EACCES;
    FakeAdapter output;
    output.capabilities |= CEC_CAP_CONNECTOR_INFO;
    output.of_output = true;
    const FakeAdapter source = adapter_at(0x1000);
    const FakeAdapter unconnected = adapter_at(CEC_PHYS_ADDR_INVALID, "/dev/cec1");
    const FakeAdapter root = adapter_at(kRoot, "/dev/cec2");
    FakeAdapter deaf;
    deaf.capabilities = 0;
    const FakeAdapter player = used_as(CEC_LOG_ADDR_TYPE_PLAYBACK);
    const FakeAdapter tv = used_as(CEC_LOG_ADDR_TYPE_TV, "/dev/cec3");

    const std::vector<std::tuple<std::vector<FakeAdapter>, std::string, std::string>> cases = {
        {{}, "", "no CEC adapter of a TV"},
        {{denied}, "", "Permission denied"},
        {{output}, "", "no CEC adapter of a TV"},
        {{source}, "", "no CEC adapter of a TV"},
        {{deaf}, "", "no CEC adapter of a TV"},
        {{player}, "", "no CEC adapter of a TV"},
        {{player}, "/dev/cec0", "linux.conf:1: cec: /dev/cec0 is no CEC adapter of a TV"},
        {{root}, "/dev/cec9", "linux.conf:1: cec: /dev/cec9 cannot be opened: No such file"},
        {{denied, output, unconnected}, "", "/dev/cec1"},
        {{source, unconnected, root}, "", "/dev/cec2"},
        {{root, tv}, "", "/dev/cec3"},
        {{output, tv}, "/dev/cec0", "/dev/cec0"},
    };
    for (const auto& [adapters, device, expected] : cases) {
        kernel.adapters = adapters;
        const int result = link.start({device, device.empty() ? "" : "linux.conf:1: cec", false});
        if (expected.substr(0, 4) == "/dev") {
            EXPECT_EQ(0, result) << expected;
            EXPECT_EQ(expected, link.stats().device);
        } else {
            EXPECT_GT(0, result) << expected;
            EXPECT_NE(std::string::npos, link.stats().note.find(expected)) << link.stats().note;
            EXPECT_FALSE(link.stats().open);
        }
        link.stop();
        EXPECT_FALSE(kernel.is_open());
    }
}

TEST_F(CecLinkTest, WaitsForNothingWhileTheAddressIsClaimed)
{
    kernel.claims_at_once = false;
    open();
    EXPECT_FALSE(link.stats().attached);
    kernel.claim();
    EXPECT_TRUE(reaches(ArcState::active));
    // The kernel keeps only the latest event: with the same state it means that the link was down meanwhile.
    kernel.claim();
    EXPECT_TRUE(activated(2));
    link.stop();
    expect_unconfigured();

    // Stopped before the claim has ended.
    ASSERT_EQ(0, link.start({}));
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        kernel.claim();
    });
    link.stop();
    late.join();
    expect_unconfigured();
}

TEST_F(CecLinkTest, FindsAnAdapterAgainThatWasUnplugged)
{
    open();
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(activated(round));
        unplug();
        EXPECT_EQ(ArcState::idle, link.stats().arc);
        kernel.set_adapter(FakeAdapter());
        kernel.set_gone(false);
    }
    ASSERT_TRUE(activated(3));
    unplug();
    // What is there now is not used: one without a cable may be anything, and one is a player at the old number.
    for (const FakeAdapter& other :
         {adapter_at(CEC_PHYS_ADDR_INVALID, "/dev/cec2"), used_as(CEC_LOG_ADDR_TYPE_PLAYBACK)}) {
        kernel.set_adapter(other);
        kernel.set_gone(false);
        ASSERT_TRUE(eventually([&, looks = kernel.opened.load()] { return kernel.opened > looks + 1; }));
        EXPECT_TRUE(link.stats().lost);
    }
    kernel.set_adapter(adapter_at(kRoot, "/dev/cec3"));
    ASSERT_TRUE(activated(4));
    EXPECT_EQ("/dev/cec3", link.stats().device) << "a TV's, whatever its number";
    link.stop();
    expect_unconfigured();
    open();
    unplug();
    link.stop();
    EXPECT_FALSE(kernel.is_open());
}

TEST_F(CecLinkTest, TakesOverWhatAPlayerLeftThatCrashed)
{
    FakeAdapter left = used_as(CEC_LOG_ADDR_TYPE_TV);
    left.capabilities |= CEC_CAP_PHYS_ADDR;
    strcpy(left.logical.osd_name, "hdmiplayer");
    FakeAdapter unclaimed = left;
    unclaimed.logical.log_addr_mask = 0;
    for (const FakeAdapter& adapter : {left, unclaimed}) {
        kernel.adapters = {adapter};
        kernel.locked_by_another = true;
        EXPECT_EQ(-EBUSY, link.start({}));
        EXPECT_EQ("/dev/cec0 cannot be used: another player has it; the audio return channel stays closed",
                  link.stats().note);
        kernel.locked_by_another = false;
        open();
        EXPECT_TRUE(reaches(ArcState::active));
        link.stop();
        expect_unconfigured();
        EXPECT_EQ(CEC_PHYS_ADDR_INVALID, kernel.adapters[0].physical_address);
    }
}

// Another program removes the configuration. Then the claim of the address fails, which the kernel does not repeat.
TEST_F(CecLinkTest, ClaimsItsAddressAgain)
{
    open();
    ASSERT_TRUE(reaches(ArcState::active));
    kernel.claims_at_once = false;
    kernel.unconfigure();
    EXPECT_TRUE(eventually([&] { return link.stats().note == "/dev/cec0 has lost its CEC address"; }));
    EXPECT_TRUE(eventually([&] { return link.stats().note.find("/dev/cec0 gets no CEC address") == 0; }));
    kernel.claim();
    EXPECT_TRUE(activated(2));
    link.stop();
    expect_unconfigured();
}

TEST_F(CecLinkTest, SaysWhyAnAdapterIsOfNoUse)
{
    struct Case {
        uint16_t physical_address, claimed_mask;
        const char* note;
        bool listens;
    };
    for (const Case& c : {Case{CEC_PHYS_ADDR_INVALID, 0, "no CEC link", true},
                          Case{0x1230, CEC_LOG_ADDR_MASK_SPECIFIC, "/dev/cec0 is at 1.2.3.0, no TV's place", false},
                          Case{kRoot, CEC_LOG_ADDR_MASK_SPECIFIC, "another TV has the CEC address 0", false}}) {
        kernel.adapters[0].physical_address = c.physical_address;
        kernel.claimed_mask = c.claimed_mask;
        open("/dev/cec0");
        EXPECT_TRUE(eventually([&] { return link.stats().note.find(c.note) == 0; })) << link.stats().note;
        EXPECT_TRUE(eventually([&] { return kernel.is_listening() == c.listens; })) << c.note;
        EXPECT_EQ(ArcState::idle, link.stats().arc);
        kernel.claimed_mask = CEC_LOG_ADDR_MASK_TV;
        kernel.claim();
        EXPECT_TRUE(reaches(ArcState::active)) << c.note;
        EXPECT_TRUE(kernel.is_listening());
        link.stop();
    }
}

TEST_F(CecLinkTest, GivesTheFormerPhysicalAddressBack)
{
    kernel.adapters[0].capabilities |= CEC_CAP_PHYS_ADDR;
    kernel.adapters[0].physical_address = 0x1000;
    open("/dev/cec0", true);
    EXPECT_TRUE(reaches(ArcState::active));
    EXPECT_EQ(kRoot, link.stats().physical_address);
    link.stop();
    EXPECT_EQ(0x1000, kernel.adapters[0].physical_address);
}

TEST_F(CecLinkTest, EndsInTimeWhenNobodyAnswers)
{
    kernel.audio_system = [](const std::string& message) { return message == "05:83" ? kAddressReport : ""; };
    for (const bool tells_fates : {true, false}) {
        kernel.tells_fates = tells_fates;
        open();
        ASSERT_TRUE(reaches(ArcState::requested));
        const auto start = std::chrono::steady_clock::now();
        link.stop();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(CecLink::kStopMs));
    }
}

TEST_F(CecLinkTest, SaysOnceThatAnotherProgramHasTheAdapterToItself)
{
    kernel.transmit_error = EBUSY;
    testing::internal::CaptureStdout();
    open();
    EXPECT_TRUE(eventually([&] { return link.stats().undelivered == 3 && link.stats().arc == ArcState::idle; }));
    link.stop();
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, log.find("/dev/cec0 is busy"));
    EXPECT_EQ(1, std::count(log.begin(), log.end(), '\n')) << log;
}

TEST(CecFunctions, WithoutAnAdapterTheyFailAtOnceAndSayWhy)
{
    setenv("HDMIPLAYER_CEC_DEVICE", "/dev/null", 1);
    testing::internal::CaptureStdout();
    hdmi_cec_config_t config = {};
    EXPECT_GT(0, vendor_hdmi_cec_init(&config));
    EXPECT_GT(0, vendor_hdmi_cec_open_arc());
    EXPECT_EQ(0, vendor_hdmi_cec_deinit());
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, log.find("HDMIPLAYER_CEC_DEVICE: /dev/null is no CEC adapter of a TV")) << log;
    EXPECT_EQ(1, std::count(log.begin(), log.end(), '\n')) << log;
}

} // namespace
