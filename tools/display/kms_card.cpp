// SPDX-License-Identifier: MIT
#include "display/kms_card.h"

#include <drm_fourcc.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <xf86drm.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "display/kms_mode.h"

namespace display
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

uint64_t plane_type(int fd, uint32_t plane)
{
    ObjectProperties all(drmModeObjectGetProperties(fd, plane, DRM_MODE_OBJECT_PLANE));
    for (uint32_t i = 0; all && i < all->count_props; i++) {
        Property property(drmModeGetProperty(fd, all->props[i]));
        if (property && std::strcmp(property->name, "type") == 0)
            return all->prop_values[i];
    }
    return DRM_PLANE_TYPE_OVERLAY;
}

bool is_primary(int fd, uint32_t plane) { return plane_type(fd, plane) == DRM_PLANE_TYPE_PRIMARY; }

/// The values of a property that are chosen by name, as "PROPERTY/name".
void add_values(const drmModePropertyRes& property, std::map<std::string, uint64_t>* values)
{
    if ((property.flags & DRM_MODE_PROP_ENUM) == 0)
        return;
    for (int i = 0; i < property.count_enums; i++)
        (*values)[std::string(property.name) + "/" + property.enums[i].name] = property.enums[i].value;
}

std::map<std::string, uint64_t> values_of(int fd, uint32_t plane)
{
    std::map<std::string, uint64_t> values;
    ObjectProperties all(drmModeObjectGetProperties(fd, plane, DRM_MODE_OBJECT_PLANE));
    for (uint32_t i = 0; all && i < all->count_props; i++)
        if (Property property{drmModeGetProperty(fd, all->props[i])})
            add_values(*property, &values);
    return values;
}

bool has_format(const std::vector<uint32_t>& formats, uint32_t fourcc)
{
    return std::find(formats.begin(), formats.end(), fourcc) != formats.end();
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

/// What one commit sets.
class KmsRequest
{
public:
    KmsRequest() : request_(drmModeAtomicAlloc()) {}

    void set(uint32_t object, const KmsCard::Properties& properties, const char* name, uint64_t value)
    {
        const auto property = properties.find(name);
        if (property != properties.end())
            drmModeAtomicAddProperty(request_.get(), object, property->second, value);
    }

    void show(const KmsCard::KmsPlane& plane, const KmsPlace& place, uint32_t frame_buffer, uint32_t crtc)
    {
        constexpr int kFixedPoint = 16;
        const KmsCard::Properties& properties = plane.properties;
        set(plane.id, properties, "FB_ID", frame_buffer);
        set(plane.id, properties, "CRTC_ID", crtc);
        set(plane.id, properties, "SRC_X", 0);
        set(plane.id, properties, "SRC_Y", 0);
        set(plane.id, properties, "SRC_W", static_cast<uint64_t>(place.layout.width) << kFixedPoint);
        set(plane.id, properties, "SRC_H", static_cast<uint64_t>(place.layout.height) << kFixedPoint);
        set(plane.id, properties, "CRTC_X", static_cast<uint64_t>(place.left));
        set(plane.id, properties, "CRTC_Y", static_cast<uint64_t>(place.top));
        set(plane.id, properties, "CRTC_W", static_cast<uint64_t>(place.size.width));
        set(plane.id, properties, "CRTC_H", static_cast<uint64_t>(place.size.height));
        choose(plane, "COLOR_ENCODING", place.layout.bt709 ? "ITU-R BT.709 YCbCr" : "ITU-R BT.601 YCbCr");
        choose(plane, "COLOR_RANGE", place.layout.full_range ? "YCbCr full range" : "YCbCr limited range");
    }

    void hide(const KmsCard::KmsPlane& plane)
    {
        set(plane.id, plane.properties, "FB_ID", 0);
        set(plane.id, plane.properties, "CRTC_ID", 0);
    }

    /// @return 0 or an errno
    int commit(int fd, uint32_t flags, uint64_t id = 0)
    {
        auto* data = reinterpret_cast<void*>(static_cast<uintptr_t>(id));
        return error_of(drmModeAtomicCommit(fd, request_.get(), flags, data));
    }

private:
    /// Of planes that have the choice.
    void choose(const KmsCard::KmsPlane& plane, const char* property, const char* value)
    {
        const auto number = plane.values.find(std::string(property) + "/" + value);
        if (number != plane.values.end())
            set(plane.id, plane.properties, property, number->second);
    }

    AtomicRequest request_;
};

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
    buffer->place_ = whole_screen();
    return buffer;
}

std::shared_ptr<KmsBuffer> KmsCard::import(const ForeignFrame& frame, const KmsBuffer& blank, std::string* why)
{
    std::lock_guard<std::mutex> lock(mutex_);
    const PixelLayout& layout = frame.layout;
    auto buffer = std::make_shared<KmsBuffer>();
    buffer->imported_ = true;
    if (!atomic_ || frame.dmabuf < 0 || drmPrimeFDToHandle(fd_, frame.dmabuf, &buffer->handle_) != 0) {
        *why = !atomic_ ? "page flips show one format only" : "the card cannot read the device's memory";
        return nullptr;
    }
    buffer->card_ = shared_from_this();
    buffer->generation_ = generation_;
    uint32_t handles[4] = {};
    uint32_t pitches[4] = {};
    uint32_t offsets[4] = {};
    for (int plane = 0; plane < layout.planes; plane++) {
        const auto at = static_cast<size_t>(plane);
        handles[plane] = buffer->handle_;
        pitches[plane] = layout.pitches[at];
        offsets[plane] = layout.offsets[at];
    }
    KmsPlace place = foreign_place_;
    if (drmModeAddFB2(fd_, static_cast<uint32_t>(layout.width), static_cast<uint32_t>(layout.height), layout.fourcc,
                      handles, pitches, offsets, &buffer->id_, 0) != 0) {
        *why = "the card does not take frames that lie like that";
    } else if (place.plane != 0 && place.layout == layout) {
        buffer->place_ = place;
        return buffer;
    } else if (find_place(*buffer, layout, blank, &place)) {
        buffer->place_ = foreign_place_ = place;
        return buffer;
    } else {
        *why = "no plane of the card takes that format and size";
    }
    buffer->release();
    buffer->card_.reset();
    return nullptr;
}

/// By trying: what a plane scales, and whether the primary one may leave borders, no driver tells.
bool KmsCard::find_place(const KmsBuffer& buffer, const PixelLayout& layout, const KmsBuffer& blank, KmsPlace* place)
{
    place->layout = layout;
    place->size = fit(layout.width, layout.height, {width_, height_});
    place->left = (width_ - place->size.width) / 2;
    place->top = (height_ - place->size.height) / 2;
    return std::any_of(planes_.begin(), planes_.end(), [&](const KmsPlane& plane) {
        place->plane = plane.id;
        return has_format(plane.formats, layout.fourcc) &&
               commit_all(blank, &buffer, *place, DRM_MODE_ATOMIC_TEST_ONLY) == 0;
    });
}

bool KmsCard::reads(uint32_t fourcc) const
{
    return atomic_ && std::any_of(planes_.begin(), planes_.end(),
                                  [fourcc](const KmsPlane& plane) { return has_format(plane.formats, fourcc); });
}

bool KmsPlace::operator==(const KmsPlace& other) const
{
    return plane == other.plane && left == other.left && top == other.top && size.width == other.size.width &&
           size.height == other.size.height && layout == other.layout;
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
        if (imported_)
            drmCloseBufferHandle(card_->fd_, handle_);
        else
            drmModeDestroyDumbBuffer(card_->fd_, handle_);
    }
    id_ = 0;
    handle_ = 0;
}

// --- Opening ----------------------------------------------------------------------

std::shared_ptr<KmsCard> KmsCard::open(const std::string& path, const ModeWish& wish, bool atomic, std::string* error)
{
    if (!path.empty())
        return open_one(path, wish, atomic, error);
    *error = "/dev/dri has no card";
    for (int i = 0; i < kCardsToTry; i++) {
        std::string name = card_path(i);
        if (access(name.c_str(), F_OK) != 0)
            continue;
        if (std::shared_ptr<KmsCard> card = open_one(name, wish, atomic, error))
            return card;
    }
    return nullptr;
}

std::shared_ptr<KmsCard> KmsCard::open_one(const std::string& path, const ModeWish& wish, bool atomic,
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
        wrong = card->take_connector(wish);
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
std::string KmsCard::take_connector(const ModeWish& wish)
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
        const drmModeModeInfo* mode = choose_mode(modes, wish, &why);
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
    planes_.clear();
    foreign_place_ = {};
    atomic_ = try_atomic_ && drmSetClientCap(fd_, DRM_CLIENT_CAP_ATOMIC, 1) == 0;
    if (atomic_)
        take_planes();
    // Drawn pictures need the primary plane.
    atomic_ = !planes_.empty() && is_primary(fd_, planes_.front().id) &&
              has_format(planes_.front().formats, DRM_FORMAT_XRGB8888);
    if (!atomic_)
        return;
    connector_properties_ = properties_of(fd_, connector_, DRM_MODE_OBJECT_CONNECTOR);
    crtc_properties_ = properties_of(fd_, crtc_, DRM_MODE_OBJECT_CRTC);
}

/// Of the first CRTC, but those of cursors.
void KmsCard::take_planes()
{
    Planes planes(drmModeGetPlaneResources(fd_));
    for (uint32_t i = 0; planes && i < planes->count_planes; i++) {
        Plane plane(drmModeGetPlane(fd_, planes->planes[i]));
        if (!plane || (plane->possible_crtcs & 1) == 0)
            continue;
        const uint64_t type = plane_type(fd_, plane->plane_id);
        if (type == DRM_PLANE_TYPE_CURSOR)
            continue;
        KmsPlane found;
        found.id = plane->plane_id;
        found.formats.assign(plane->formats, plane->formats + plane->count_formats);
        found.properties = properties_of(fd_, found.id, DRM_MODE_OBJECT_PLANE);
        found.fb = found.properties["FB_ID"];
        found.values = values_of(fd_, found.id);
        planes_.insert(type == DRM_PLANE_TYPE_PRIMARY ? planes_.begin() : planes_.end(), std::move(found));
    }
}

const KmsCard::KmsPlane* KmsCard::find_plane(uint32_t id) const
{
    const auto found =
        std::find_if(planes_.begin(), planes_.end(), [id](const KmsPlane& plane) { return plane.id == id; });
    return found != planes_.end() ? &*found : nullptr;
}

KmsPlace KmsCard::whole_screen() const
{
    KmsPlace place;
    place.plane = planes_.empty() ? 0 : planes_.front().id;
    place.size = {width_, height_};
    place.layout.fourcc = DRM_FORMAT_XRGB8888;
    place.layout.width = width_;
    place.layout.height = height_;
    return place;
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
    const int error = commit_all(buffer, nullptr, {}, 0);
    if (error == 0)
        placed_ = buffer.place();
    return error;
}

/// Sets everything: the mode, @p blank on the whole screen, and @p buffer, if any, at @p place. @return 0 or an errno
int KmsCard::commit_all(const KmsBuffer& blank, const KmsBuffer* buffer, const KmsPlace& place, uint32_t flags)
{
    uint32_t blob = 0;
    int error = error_of(drmModeCreatePropertyBlob(fd_, &mode_, sizeof mode_, &blob));
    if (error != 0)
        return error;
    KmsRequest request;
    request.set(connector_, connector_properties_, "CRTC_ID", crtc_);
    request.set(crtc_, crtc_properties_, "MODE_ID", blob);
    request.set(crtc_, crtc_properties_, "ACTIVE", 1);
    for (const KmsPlane& plane : planes_) {
        const bool primary = plane.id == planes_.front().id;
        if (buffer != nullptr && plane.id == place.plane)
            request.show(plane, place, buffer->id(), crtc_);
        else if (primary)
            request.show(plane, blank.place(), blank.id(), crtc_);
        else
            request.hide(plane);
    }
    error = request.commit(fd_, flags | DRM_MODE_ATOMIC_ALLOW_MODESET);
    drmModeDestroyPropertyBlob(fd_, blob);
    return error;
}

/// From the whole screen to a part of it, from one plane or format to another.
int KmsCard::flip_to_another_place(const KmsBuffer& buffer, uint64_t id)
{
    KmsRequest request;
    const KmsPlane* plane = find_plane(buffer.place().plane);
    const KmsPlane* before = find_plane(placed_.plane);
    if (plane == nullptr)
        return EINVAL;
    request.show(*plane, buffer.place(), buffer.id(), crtc_);
    // The primary plane stays lit below the others.
    if (before != nullptr && before != plane && before != &planes_.front())
        request.hide(*before);
    const int error = request.commit(fd_, DRM_MODE_ATOMIC_NONBLOCK | DRM_MODE_PAGE_FLIP_EVENT, id);
    if (error == 0)
        placed_ = buffer.place();
    return error;
}

int KmsCard::flip(const KmsBuffer& buffer, uint64_t id)
{
    if (!atomic_) {
        auto* data = reinterpret_cast<void*>(static_cast<uintptr_t>(id));
        return error_of(drmModePageFlip(fd_, crtc_, buffer.id(), DRM_MODE_PAGE_FLIP_EVENT, data));
    }
    if (buffer.place() != placed_)
        return flip_to_another_place(buffer, id);
    const KmsPlane* plane = find_plane(placed_.plane);
    // A request of libdrm's is allocated, copied and sorted for each flip: too much for whoever flips. This is the same
    // with one property.
    const uint32_t properties = 1;
    const uint64_t value = buffer.id();
    auto address = [](const auto& what) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&what)); };
    drm_mode_atomic commit = {};
    commit.flags = DRM_MODE_ATOMIC_NONBLOCK | DRM_MODE_PAGE_FLIP_EVENT;
    commit.count_objs = 1;
    commit.objs_ptr = address(plane->id);
    commit.count_props_ptr = address(properties);
    commit.props_ptr = address(plane->fb);
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
    std::lock_guard<std::mutex> lock(mutex_);
    // The pictures that are being painted have the size of that mode.
    drmModeModeInfo mode = mode_;
    ModeWish same;
    same.refresh_hz = refresh_hz(mode);
    bool found = take_connector(same).empty();
    if (!found) {
        connector_name_.clear();
        found = take_connector(same).empty();
    }
    mode_ = mode;
    return found;
}

void KmsCard::restore()
{
    // The calls below know of the primary plane only.
    const KmsPlane* plane = find_plane(placed_.plane);
    if (atomic_ && plane != nullptr && plane != &planes_.front()) {
        KmsRequest request;
        request.hide(*plane);
        request.commit(fd_, 0);
    }
    if (before_ != nullptr && before_->mode_valid != 0)
        drmModeSetCrtc(fd_, crtc_, before_->buffer_id, before_->x, before_->y, &connector_, 1, &before_->mode);
    else
        drmModeSetCrtc(fd_, crtc_, 0, 0, 0, nullptr, 0, nullptr);
    drmDropMaster(fd_);
}

} // namespace display
