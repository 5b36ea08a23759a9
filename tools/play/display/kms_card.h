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

#include "host/frame_pool.h"
#include "source/canvas.h"

namespace play
{

class KmsCard;

/// Memory of the card that it can show ("dumb": drawn by the processor).
class KmsBuffer : public Surface
{
public:
    ~KmsBuffer() override;
    Canvas canvas() const override { return canvas_; }
    uint32_t id() const { return id_; }
    /// Whether the card is still the one that it was made for. Does not wait, not even for memory that is being made.
    bool current() const;

private:
    friend class KmsCard;
    void release();

    std::shared_ptr<KmsCard> card_;
    int generation_ = 0;
    uint32_t handle_ = 0;
    uint32_t id_ = 0; ///< as a frame buffer of the card
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
    static std::shared_ptr<KmsCard> open(const std::string& path, std::optional<double> refresh_hz, bool atomic,
                                         std::string* error);
    ~KmsCard();

    /// Stays the same for as long as this object lives, also when the card itself went away and came back.
    int fd() const { return fd_; }
    const drmModeModeInfo& mode() const { return mode_; }
    std::string description() const;

    /// @return null, with errno set
    std::shared_ptr<KmsBuffer> make_buffer();

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

    KmsCard(const std::string& path, int fd, bool atomic) : path_(path), fd_(fd), try_atomic_(atomic) {}
    static std::shared_ptr<KmsCard> open_one(const std::string& path, std::optional<double> refresh_hz, bool atomic,
                                             std::string* error);
    std::string take_connector(std::optional<double> refresh_hz);
    std::string take_crtc(const drmModeConnector& connector);
    void take_atomic();
    bool take_primary_plane();
    bool is_gone() const;
    bool reopen();
    bool replace_by(const std::string& path);
    bool find_connector();
    int show_atomic(const KmsBuffer& buffer);

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
    uint32_t plane_ = 0;
    uint32_t plane_fb_ = 0; ///< its property FB_ID
    Properties connector_properties_;
    Properties crtc_properties_;
    Properties plane_properties_;
};

} // namespace play
