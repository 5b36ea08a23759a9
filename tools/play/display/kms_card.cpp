// SPDX-License-Identifier: MIT
#include "display/kms_card.h"

#include <drm_fourcc.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <xf86drm.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "display/kms_mode.h"

namespace play
{
namespace
{

constexpr int kCardsToTry = 16;

std::string card_path(int number) { return "/dev/dri/card" + std::to_string(number); }

template <typename T, void (*release)(T*)> struct Releaser {
    void operator()(T* p) const { release(p); }
};
using Resources = std::unique_ptr<drmModeRes, Releaser<drmModeRes, drmModeFreeResources>>;
using Connector = std::unique_ptr<drmModeConnector, Releaser<drmModeConnector, drmModeFreeConnector>>;
using Encoder = std::unique_ptr<drmModeEncoder, Releaser<drmModeEncoder, drmModeFreeEncoder>>;
using Plane = std::unique_ptr<drmModePlane, Releaser<drmModePlane, drmModeFreePlane>>;
using Planes = std::unique_ptr<drmModePlaneRes, Releaser<drmModePlaneRes, drmModeFreePlaneResources>>;
using ObjectProperties =
    std::unique_ptr<drmModeObjectProperties, Releaser<drmModeObjectProperties, drmModeFreeObjectProperties>>;
using Property = std::unique_ptr<drmModePropertyRes, Releaser<drmModePropertyRes, drmModeFreeProperty>>;
using AtomicRequest = std::unique_ptr<drmModeAtomicReq, Releaser<drmModeAtomicReq, drmModeAtomicFree>>;

std::string driver_name(int fd)
{
    drmVersionPtr version = drmGetVersion(fd);
    std::string name = version != nullptr && version->name != nullptr ? version->name : "?";
    drmFreeVersion(version);
    return name;
}

std::map<std::string, uint32_t> properties_of(int fd, uint32_t object, uint32_t type)
{
    std::map<std::string, uint32_t> ids;
    ObjectProperties all(drmModeObjectGetProperties(fd, object, type));
    for (uint32_t i = 0; all && i < all->count_props; i++) {
        Property property(drmModeGetProperty(fd, all->props[i]));
        if (property)
            ids[property->name] = property->prop_id;
    }
    return ids;
}

bool is_primary(int fd, uint32_t plane)
{
    ObjectProperties all(drmModeObjectGetProperties(fd, plane, DRM_MODE_OBJECT_PLANE));
    for (uint32_t i = 0; all && i < all->count_props; i++) {
        Property property(drmModeGetProperty(fd, all->props[i]));
        if (property && std::strcmp(property->name, "type") == 0)
            return all->prop_values[i] == DRM_PLANE_TYPE_PRIMARY;
    }
    return false;
}

bool shows_xrgb(const drmModePlane& plane)
{
    for (uint32_t i = 0; i < plane.count_formats; i++)
        if (plane.formats[i] == DRM_FORMAT_XRGB8888)
            return true;
    return false;
}

std::vector<drmModeModeInfo> modes_of(const drmModeConnector& connector)
{
    return {connector.modes, connector.modes + connector.count_modes};
}

/// Of libdrm's mode functions, which return it negative. Not all of it comes from the kernel by errno.
int error_of(int result) { return result < 0 ? -result : 0; }

/// A call on a card that is gone, rather than one that was refused.
bool means_gone(int error) { return error == ENODEV || error == ENXIO || error == EIO || error == EBADF; }

} // namespace

// --- Memory -----------------------------------------------------------------------

std::shared_ptr<KmsBuffer> KmsCard::make_buffer()
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto buffer = std::make_shared<KmsBuffer>();
    uint64_t bytes = 0;
    uint32_t pitch = 0;
    uint64_t offset = 0;
    if (drmModeCreateDumbBuffer(fd_, width_, height_, 32, 0, &buffer->handle_, &pitch, &bytes) != 0)
        return nullptr;
    buffer->card_ = shared_from_this();
    buffer->generation_ = generation_;
    const uint32_t handles[4] = {buffer->handle_, 0, 0, 0};
    const uint32_t pitches[4] = {pitch, 0, 0, 0};
    const uint32_t offsets[4] = {};
    int result = drmModeAddFB2(fd_, width_, height_, DRM_FORMAT_XRGB8888, handles, pitches, offsets, &buffer->id_, 0);
    if (result == 0)
        result = drmModeMapDumbBuffer(fd_, buffer->handle_, &offset);
    void* memory = MAP_FAILED;
    if (result == 0)
        memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, static_cast<off_t>(offset));
    if (memory == MAP_FAILED) {
        int error = errno;
        buffer->release();
        buffer->card_.reset();
        errno = error;
        return nullptr;
    }
    buffer->bytes_ = bytes;
    buffer->canvas_ = {static_cast<uint8_t*>(memory), width_, height_, pitch};
    return buffer;
}

bool KmsBuffer::current() const { return generation_ == card_->generation_; }

KmsBuffer::~KmsBuffer()
{
    if (!card_)
        return;
    std::lock_guard<std::mutex> lock(card_->mutex_);
    release();
}

void KmsBuffer::release()
{
    if (canvas_.memory != nullptr)
        munmap(canvas_.memory, bytes_);
    canvas_ = {};
    // Of a card that was opened anew, the numbers mean something else, and the memory is gone.
    if (generation_ == card_->generation_) {
        if (id_ != 0)
            drmModeRmFB(card_->fd_, id_);
        drmModeDestroyDumbBuffer(card_->fd_, handle_);
    }
    id_ = 0;
    handle_ = 0;
}

// --- Opening ----------------------------------------------------------------------

std::shared_ptr<KmsCard> KmsCard::open(const std::string& path, std::optional<double> refresh_hz, bool atomic,
                                       std::string* error)
{
    if (!path.empty())
        return open_one(path, refresh_hz, atomic, error);
    *error = "/dev/dri has no card";
    for (int i = 0; i < kCardsToTry; i++) {
        std::string name = card_path(i);
        if (access(name.c_str(), F_OK) != 0)
            continue;
        if (std::shared_ptr<KmsCard> card = open_one(name, refresh_hz, atomic, error))
            return card;
    }
    return nullptr;
}

std::shared_ptr<KmsCard> KmsCard::open_one(const std::string& path, std::optional<double> refresh_hz, bool atomic,
                                           std::string* error)
{
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        *error = path + ": " + std::strerror(errno);
        if (errno == EACCES)
            *error += " (it needs root or the group that owns the card, video as a rule)";
        return nullptr;
    }
    std::shared_ptr<KmsCard> card(new KmsCard(path, fd, atomic));
    card->driver_ = driver_name(fd);
    uint64_t dumb = 0;
    std::string wrong;
    if (drmGetCap(fd, DRM_CAP_DUMB_BUFFER, &dumb) != 0 || dumb == 0)
        wrong = "is no display, or one that a processor cannot draw on";
    else if (drmIsMaster(fd) == 0 && drmSetMaster(fd) != 0)
        wrong = "another program shows on it, such as a desktop: run this on a console of its own";
    if (wrong.empty())
        wrong = card->take_connector(refresh_hz);
    if (!wrong.empty()) {
        *error = path + ": " + wrong;
        return nullptr;
    }
    card->width_ = card->mode_.hdisplay;
    card->height_ = card->mode_.vdisplay;
    card->before_ = drmModeGetCrtc(fd, card->crtc_);
    return card;
}

KmsCard::~KmsCard()
{
    drmModeFreeCrtc(before_);
    close(fd_);
}

std::string KmsCard::description() const
{
    char mode[64];
    std::snprintf(mode, sizeof mode, " %dx%d, ", mode_.hdisplay, mode_.vdisplay);
    return "kms:" + path_ + " (" + driver_ + ") " + connector_name_ + mode + (atomic_ ? "atomic flips" : "page flips");
}

/// The first connector with a display, and the mode for it. @return what is wrong, or nothing
std::string KmsCard::take_connector(std::optional<double> refresh_hz)
{
    Resources resources(drmModeGetResources(fd_));
    if (!resources)
        return "has no connectors";
    std::string wrong;
    for (int i = 0; i < resources->count_connectors; i++) {
        Connector connector(drmModeGetConnector(fd_, resources->connectors[i]));
        if (!connector)
            continue;
        std::string name = connector_name(*connector);
        if (!connector_name_.empty() && name != connector_name_)
            continue;
        std::string why;
        if (connector->connection != DRM_MODE_CONNECTED) {
            wrong += (wrong.empty() ? "" : "; ") + name + " has no display";
            continue;
        }
        const std::vector<drmModeModeInfo> modes = modes_of(*connector);
        const drmModeModeInfo* mode = choose_mode(modes, refresh_hz, &why);
        if (mode != nullptr)
            why = take_crtc(*connector);
        if (mode == nullptr || !why.empty()) {
            wrong += (wrong.empty() ? "" : "; ") + name + " " + why;
            continue;
        }
        mode_ = *mode;
        connector_ = connector->connector_id;
        connector_name_ = name;
        take_atomic();
        return "";
    }
    return wrong.empty() ? "has no connector" : wrong;
}

/// Who waits for a vertical blank without further words means the first CRTC's: that one, or none.
std::string KmsCard::take_crtc(const drmModeConnector& connector)
{
    Resources resources(drmModeGetResources(fd_));
    for (int i = 0; resources && resources->count_crtcs > 0 && i < connector.count_encoders; i++) {
        Encoder encoder(drmModeGetEncoder(fd_, connector.encoders[i]));
        if (encoder && (encoder->possible_crtcs & 1) != 0) {
            crtc_ = resources->crtcs[0];
            return "";
        }
    }
    return "cannot be driven by the card's first CRTC, whose vertical blanks the player waits for";
}

void KmsCard::take_atomic()
{
    atomic_ = try_atomic_ && drmSetClientCap(fd_, DRM_CLIENT_CAP_ATOMIC, 1) == 0 && take_primary_plane();
    if (!atomic_)
        return;
    connector_properties_ = properties_of(fd_, connector_, DRM_MODE_OBJECT_CONNECTOR);
    crtc_properties_ = properties_of(fd_, crtc_, DRM_MODE_OBJECT_CRTC);
    plane_properties_ = properties_of(fd_, plane_, DRM_MODE_OBJECT_PLANE);
    plane_fb_ = plane_properties_["FB_ID"];
}

bool KmsCard::take_primary_plane()
{
    Planes planes(drmModeGetPlaneResources(fd_));
    for (uint32_t i = 0; planes && i < planes->count_planes; i++) {
        Plane plane(drmModeGetPlane(fd_, planes->planes[i]));
        if (plane && (plane->possible_crtcs & 1) != 0 && shows_xrgb(*plane) && is_primary(fd_, plane->plane_id)) {
            plane_ = plane->plane_id;
            return true;
        }
    }
    return false;
}

// --- Showing ----------------------------------------------------------------------

int KmsCard::show(const KmsBuffer& buffer)
{
    if (atomic_)
        return show_atomic(buffer);
    return error_of(drmModeSetCrtc(fd_, crtc_, buffer.id(), 0, 0, &connector_, 1, &mode_));
}

int KmsCard::show_atomic(const KmsBuffer& buffer)
{
    uint32_t blob = 0;
    int error = error_of(drmModeCreatePropertyBlob(fd_, &mode_, sizeof mode_, &blob));
    if (error != 0)
        return error;
    AtomicRequest request(drmModeAtomicAlloc());
    auto set = [&request](uint32_t object, Properties& properties, const char* name, uint64_t value) {
        drmModeAtomicAddProperty(request.get(), object, properties[name], value);
    };
    constexpr int kFixedPoint = 16;
    set(connector_, connector_properties_, "CRTC_ID", crtc_);
    set(crtc_, crtc_properties_, "MODE_ID", blob);
    set(crtc_, crtc_properties_, "ACTIVE", 1);
    set(plane_, plane_properties_, "FB_ID", buffer.id());
    set(plane_, plane_properties_, "CRTC_ID", crtc_);
    set(plane_, plane_properties_, "SRC_X", 0);
    set(plane_, plane_properties_, "SRC_Y", 0);
    set(plane_, plane_properties_, "SRC_W", uint64_t{mode_.hdisplay} << kFixedPoint);
    set(plane_, plane_properties_, "SRC_H", uint64_t{mode_.vdisplay} << kFixedPoint);
    set(plane_, plane_properties_, "CRTC_X", 0);
    set(plane_, plane_properties_, "CRTC_Y", 0);
    set(plane_, plane_properties_, "CRTC_W", mode_.hdisplay);
    set(plane_, plane_properties_, "CRTC_H", mode_.vdisplay);
    error = error_of(drmModeAtomicCommit(fd_, request.get(), DRM_MODE_ATOMIC_ALLOW_MODESET, nullptr));
    drmModeDestroyPropertyBlob(fd_, blob);
    return error;
}

int KmsCard::flip(const KmsBuffer& buffer, uint64_t id)
{
    if (!atomic_) {
        auto* data = reinterpret_cast<void*>(static_cast<uintptr_t>(id));
        return error_of(drmModePageFlip(fd_, crtc_, buffer.id(), DRM_MODE_PAGE_FLIP_EVENT, data));
    }
    // A request of libdrm's is allocated, copied and sorted for each flip: too much for whoever flips. This is the same
    // with one property.
    const uint32_t properties = 1;
    const uint64_t value = buffer.id();
    auto address = [](const auto& what) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&what)); };
    drm_mode_atomic commit = {};
    commit.flags = DRM_MODE_ATOMIC_NONBLOCK | DRM_MODE_PAGE_FLIP_EVENT;
    commit.count_objs = 1;
    commit.objs_ptr = address(plane_);
    commit.count_props_ptr = address(properties);
    commit.props_ptr = address(plane_fb_);
    commit.prop_values_ptr = address(value);
    commit.user_data = id;
    return drmIoctl(fd_, DRM_IOCTL_MODE_ATOMIC, &commit) == 0 ? 0 : errno;
}

bool KmsCard::connected() const
{
    Connector connector(drmModeGetConnectorCurrent(fd_, connector_));
    return connector && connector->connection == DRM_MODE_CONNECTED;
}

/// The card itself went away, not only its display.
bool KmsCard::is_gone() const
{
    errno = 0;
    Connector connector(drmModeGetConnectorCurrent(fd_, connector_));
    return (!connector && means_gone(errno)) || access(path_.c_str(), F_OK) != 0;
}

int KmsCard::revive()
{
    if (is_gone() && !reopen())
        return ENODEV;
    if (drmIsMaster(fd_) == 0 && drmSetMaster(fd_) != 0)
        return EACCES;
    if (connector_ == 0 && !find_connector())
        return ENOTCONN;
    // Only now is the display itself asked, which takes some time.
    Connector connector(drmModeGetConnector(fd_, connector_));
    if (!connector || connector->connection != DRM_MODE_CONNECTED)
        return ENOTCONN;
    double hz = refresh_hz(mode_);
    for (const drmModeModeInfo& mode : modes_of(*connector))
        if (mode.hdisplay == mode_.hdisplay && mode.vdisplay == mode_.vdisplay && refresh_hz(mode) == hz) {
            mode_ = mode;
            return 0;
        }
    return ENOTSUP;
}

/// Finds the card again. As long as the old one is held open, the number is not free for the new one.
bool KmsCard::reopen()
{
    if (replace_by(path_))
        return true;
    for (int i = 0; i < kCardsToTry; i++)
        if (replace_by(card_path(i)))
            return true;
    return false;
}

/// Puts the card at @p path, if it is of the same kind, in the place of the one that went away: under the descriptor
/// that the player has.
bool KmsCard::replace_by(const std::string& path)
{
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool same_kind = driver_name(fd) == driver_;
    if (same_kind) {
        std::lock_guard<std::mutex> lock(mutex_);
        same_kind = dup3(fd, fd_, O_CLOEXEC) >= 0;
        generation_ += same_kind ? 1 : 0;
    }
    close(fd);
    if (!same_kind)
        return false;
    path_ = path;
    connector_ = 0;
    drmModeFreeCrtc(before_); // nothing that could be put back
    before_ = nullptr;
    return true;
}

/// On a card that was opened anew: the connector of before, which may be counted differently, with the mode of before.
bool KmsCard::find_connector()
{
    // The pictures that are being painted have the size of that mode.
    drmModeModeInfo mode = mode_;
    bool found = take_connector(refresh_hz(mode)).empty();
    if (!found) {
        connector_name_.clear();
        found = take_connector(refresh_hz(mode)).empty();
    }
    mode_ = mode;
    return found;
}

void KmsCard::restore()
{
    if (before_ != nullptr && before_->mode_valid != 0)
        drmModeSetCrtc(fd_, crtc_, before_->buffer_id, before_->x, before_->y, &connector_, 1, &before_->mode);
    else
        drmModeSetCrtc(fd_, crtc_, 0, 0, 0, nullptr, 0, nullptr);
    drmDropMaster(fd_);
}

} // namespace play
