// SPDX-License-Identifier: MIT
/**
 * @file
 * One connector of a DRM card: its mode, memory that it can show, and flips.
 */
#pragma once

#include <xf86drmMode.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "display/canvas.h"
#include "display/frame_pool.h"
#include "display/kms_mode.h"
#include "display/layout.h"

namespace display
{

class KmsCard;

/// Which plane reads a buffer, how, and where on the screen.
struct KmsPlace {
    uint32_t plane = 0;
    int left = 0;
    int top = 0;
    Size size = {0, 0};
    PixelLayout layout; ///< of the buffer

    bool operator==(const KmsPlace& other) const;
    bool operator!=(const KmsPlace& other) const { return !(*this == other); }
};

/// Memory that the card shows: its own ("dumb": drawn by the processor), or another device's.
class KmsBuffer : public Surface
{
public:
    ~KmsBuffer() override;
    Canvas canvas() const override { return canvas_; }
    /// Whether the card is still the one that it was made for. Does not wait, not even for memory that is being made.
    bool current() const override;
    uint32_t id() const { return id_; }
    const KmsPlace& place() const { return place_; }

private:
    friend class KmsCard;
    void release();

    std::shared_ptr<KmsCard> card_;
    int generation_ = 0;
    bool imported_ = false;
    uint32_t handle_ = 0;
    uint32_t id_ = 0; ///< as a frame buffer of the card
    KmsPlace place_;
    Canvas canvas_;
    size_t bytes_ = 0;
};

/**
 * show(), flip(), revive() and restore() are for one thread at a time;
 * make_buffer() and the destruction of buffers for any.
 */
class KmsCard : public std::enable_shared_from_this<KmsCard>
{
public:
    /// Opens the card at @p path, or the first that has a display, with the connector to show on. @p atomic: flips
    /// atomically where the driver can.
    /// @return null with one line in @p error
    static std::shared_ptr<KmsCard> open(const std::string& path, const ModeWish& wish, bool atomic,
                                         std::string* error);
    ~KmsCard();

    /// Stays the same for as long as this object lives, also when the card itself went away and came back.
    int fd() const { return fd_; }
    const drmModeModeInfo& mode() const { return mode_; }
    std::string description() const;

    /// @return null, with errno set
    std::shared_ptr<KmsBuffer> make_buffer();
    /// Whether a plane of the screen reads that pixel format.
    bool reads(uint32_t fourcc) const;
    /// Another device's memory, to be shown where it is, as large as fits. @p blank: what is shown beside it. Before
    /// show(), and again after a loss. @return null with one line in @p why
    std::shared_ptr<KmsBuffer> import(const ForeignFrame& frame, const KmsBuffer& blank, std::string* why);

    /// Sets the mode and shows @p buffer; waits for it. @return 0 or an errno
    int show(const KmsBuffer& buffer);
    /// Shows @p buffer at the next vertical blank, with an event that carries @p id when it does. Does not wait.
    /// @return 0 or an errno; EBUSY: not yet, another flip is on its way
    int flip(const KmsBuffer& buffer, uint64_t id);
    /// Whether there is a display at the connector, as far as the kernel knows; does not ask the display.
    bool connected() const;
    /// After a loss: becomes the screen's master again, with the card opened anew if need be, and looks whether the
    /// display can still take the mode. show() is what should follow. @return 0 or an errno
    int revive();
    /// Puts back what was on the screen before, and lets others show.
    void restore();

private:
    friend class KmsBuffer;
    using Properties = std::map<std::string, uint32_t>;
    struct KmsPlane {
        uint32_t id = 0;
        std::vector<uint32_t> formats;
        Properties properties;
        uint32_t fb = 0;                        ///< the property FB_ID
        std::map<std::string, uint64_t> values; ///< of properties that name theirs
    };
    friend class KmsRequest;

    KmsCard(const std::string& path, int fd, bool atomic) : path_(path), fd_(fd), try_atomic_(atomic) {}
    static std::shared_ptr<KmsCard> open_one(const std::string& path, const ModeWish& wish, bool atomic,
                                             std::string* error);
    std::string take_connector(const ModeWish& wish);
    std::string take_crtc(const drmModeConnector& connector);
    void take_atomic();
    void take_planes();
    const KmsPlane* find_plane(uint32_t id) const;
    KmsPlace whole_screen() const;
    bool find_place(const KmsBuffer& buffer, const PixelLayout& layout, const KmsBuffer& blank, KmsPlace* place);
    bool is_gone() const;
    bool reopen();
    bool replace_by(const std::string& path);
    bool find_connector();
    int show_atomic(const KmsBuffer& buffer);
    int commit_all(const KmsBuffer& blank, const KmsBuffer* buffer, const KmsPlace& place, uint32_t flags);
    int flip_to_another_place(const KmsBuffer& buffer, uint64_t id);

    std::string path_; ///< a card that comes back may have another
    const int fd_;
    const bool try_atomic_;
    std::mutex mutex_; ///< memory is made and given back for the card that is open, not for another
    std::atomic<int> generation_{0};

    std::string driver_;
    std::string connector_name_;
    uint32_t connector_ = 0; ///< 0: to be found again
    uint32_t crtc_ = 0;
    drmModeModeInfo mode_ = {};
    int width_ = 0; ///< of the mode, which a replaced display must take too
    int height_ = 0;
    drmModeCrtc* before_ = nullptr; ///< what was shown when the card was opened

    bool atomic_ = false;
    std::vector<KmsPlane> planes_; ///< of the CRTC, the primary one first
    KmsPlace placed_;              ///< what was shown last
    KmsPlace foreign_place_;       ///< found for the latest import()
    Properties connector_properties_;
    Properties crtc_properties_;
};

} // namespace display
