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

constexpr int cards_to_try = 16;

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
    std::lock_guard<std::mutex> lock(m_mutex);
    auto buffer = std::make_shared<KmsBuffer>();
    uint64_t bytes = 0;
    uint32_t pitch = 0;
    uint64_t offset = 0;
    if (drmModeCreateDumbBuffer(m_fd, m_width, m_height, 32, 0, &buffer->m_handle, &pitch, &bytes) != 0)
        return nullptr;
    buffer->m_card = shared_from_this();
    buffer->m_generation = m_generation;
    const uint32_t handles[4] = {buffer->m_handle, 0, 0, 0};
    const uint32_t pitches[4] = {pitch, 0, 0, 0};
    const uint32_t offsets[4] = {};
    int result =
        drmModeAddFB2(m_fd, m_width, m_height, DRM_FORMAT_XRGB8888, handles, pitches, offsets, &buffer->m_id, 0);
    if (result == 0)
        result = drmModeMapDumbBuffer(m_fd, buffer->m_handle, &offset);
    void* memory = MAP_FAILED;
    if (result == 0)
        memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, static_cast<off_t>(offset));
    if (memory == MAP_FAILED) {
        int error = errno;
        buffer->release();
        buffer->m_card.reset();
        errno = error;
        return nullptr;
    }
    buffer->m_bytes = bytes;
    buffer->m_canvas = {static_cast<uint8_t*>(memory), m_width, m_height, pitch};
    return buffer;
}

bool KmsBuffer::current() const { return m_generation == m_card->m_generation; }

KmsBuffer::~KmsBuffer()
{
    if (!m_card)
        return;
    std::lock_guard<std::mutex> lock(m_card->m_mutex);
    release();
}

void KmsBuffer::release()
{
    if (m_canvas.memory != nullptr)
        munmap(m_canvas.memory, m_bytes);
    m_canvas = {};
    // Of a card that was opened anew, the numbers mean something else, and the memory is gone.
    if (m_generation == m_card->m_generation) {
        if (m_id != 0)
            drmModeRmFB(m_card->m_fd, m_id);
        drmModeDestroyDumbBuffer(m_card->m_fd, m_handle);
    }
    m_id = 0;
    m_handle = 0;
}

// --- Opening ----------------------------------------------------------------------

std::shared_ptr<KmsCard> KmsCard::open(const std::string& path, std::optional<double> refresh_hz, bool atomic,
                                       std::string* error)
{
    if (!path.empty())
        return open_one(path, refresh_hz, atomic, error);
    *error = "/dev/dri has no card";
    for (int i = 0; i < cards_to_try; i++) {
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
    card->m_driver = driver_name(fd);
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
    card->m_width = card->m_mode.hdisplay;
    card->m_height = card->m_mode.vdisplay;
    card->m_before = drmModeGetCrtc(fd, card->m_crtc);
    return card;
}

KmsCard::~KmsCard()
{
    drmModeFreeCrtc(m_before);
    close(m_fd);
}

std::string KmsCard::description() const
{
    char mode[64];
    std::snprintf(mode, sizeof mode, " %dx%d, ", m_mode.hdisplay, m_mode.vdisplay);
    return "kms:" + m_path + " (" + m_driver + ") " + m_connector_name + mode +
           (m_atomic ? "atomic flips" : "page flips");
}

/// The first connector with a display, and the mode for it. @return what is wrong, or nothing
std::string KmsCard::take_connector(std::optional<double> refresh_hz)
{
    Resources resources(drmModeGetResources(m_fd));
    if (!resources)
        return "has no connectors";
    std::string wrong;
    for (int i = 0; i < resources->count_connectors; i++) {
        Connector connector(drmModeGetConnector(m_fd, resources->connectors[i]));
        if (!connector)
            continue;
        std::string name = connector_name(*connector);
        if (!m_connector_name.empty() && name != m_connector_name)
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
        m_mode = *mode;
        m_connector = connector->connector_id;
        m_connector_name = name;
        take_atomic();
        return "";
    }
    return wrong.empty() ? "has no connector" : wrong;
}

/// Who waits for a vertical blank without further words means the first CRTC's: that one, or none.
std::string KmsCard::take_crtc(const drmModeConnector& connector)
{
    Resources resources(drmModeGetResources(m_fd));
    for (int i = 0; resources && resources->count_crtcs > 0 && i < connector.count_encoders; i++) {
        Encoder encoder(drmModeGetEncoder(m_fd, connector.encoders[i]));
        if (encoder && (encoder->possible_crtcs & 1) != 0) {
            m_crtc = resources->crtcs[0];
            return "";
        }
    }
    return "cannot be driven by the card's first CRTC, whose vertical blanks the player waits for";
}

void KmsCard::take_atomic()
{
    m_atomic = m_try_atomic && drmSetClientCap(m_fd, DRM_CLIENT_CAP_ATOMIC, 1) == 0 && take_primary_plane();
    if (!m_atomic)
        return;
    m_connector_properties = properties_of(m_fd, m_connector, DRM_MODE_OBJECT_CONNECTOR);
    m_crtc_properties = properties_of(m_fd, m_crtc, DRM_MODE_OBJECT_CRTC);
    m_plane_properties = properties_of(m_fd, m_plane, DRM_MODE_OBJECT_PLANE);
    m_plane_fb = m_plane_properties["FB_ID"];
}

bool KmsCard::take_primary_plane()
{
    Planes planes(drmModeGetPlaneResources(m_fd));
    for (uint32_t i = 0; planes && i < planes->count_planes; i++) {
        Plane plane(drmModeGetPlane(m_fd, planes->planes[i]));
        if (plane && (plane->possible_crtcs & 1) != 0 && shows_xrgb(*plane) && is_primary(m_fd, plane->plane_id)) {
            m_plane = plane->plane_id;
            return true;
        }
    }
    return false;
}

// --- Showing ----------------------------------------------------------------------

int KmsCard::show(const KmsBuffer& buffer)
{
    if (m_atomic)
        return show_atomic(buffer);
    return error_of(drmModeSetCrtc(m_fd, m_crtc, buffer.id(), 0, 0, &m_connector, 1, &m_mode));
}

int KmsCard::show_atomic(const KmsBuffer& buffer)
{
    uint32_t blob = 0;
    int error = error_of(drmModeCreatePropertyBlob(m_fd, &m_mode, sizeof m_mode, &blob));
    if (error != 0)
        return error;
    AtomicRequest request(drmModeAtomicAlloc());
    auto set = [&request](uint32_t object, Properties& properties, const char* name, uint64_t value) {
        drmModeAtomicAddProperty(request.get(), object, properties[name], value);
    };
    constexpr int fixed_point = 16;
    set(m_connector, m_connector_properties, "CRTC_ID", m_crtc);
    set(m_crtc, m_crtc_properties, "MODE_ID", blob);
    set(m_crtc, m_crtc_properties, "ACTIVE", 1);
    set(m_plane, m_plane_properties, "FB_ID", buffer.id());
    set(m_plane, m_plane_properties, "CRTC_ID", m_crtc);
    set(m_plane, m_plane_properties, "SRC_X", 0);
    set(m_plane, m_plane_properties, "SRC_Y", 0);
    set(m_plane, m_plane_properties, "SRC_W", uint64_t{m_mode.hdisplay} << fixed_point);
    set(m_plane, m_plane_properties, "SRC_H", uint64_t{m_mode.vdisplay} << fixed_point);
    set(m_plane, m_plane_properties, "CRTC_X", 0);
    set(m_plane, m_plane_properties, "CRTC_Y", 0);
    set(m_plane, m_plane_properties, "CRTC_W", m_mode.hdisplay);
    set(m_plane, m_plane_properties, "CRTC_H", m_mode.vdisplay);
    error = error_of(drmModeAtomicCommit(m_fd, request.get(), DRM_MODE_ATOMIC_ALLOW_MODESET, nullptr));
    drmModeDestroyPropertyBlob(m_fd, blob);
    return error;
}

int KmsCard::flip(const KmsBuffer& buffer, uint64_t id)
{
    if (!m_atomic) {
        auto* data = reinterpret_cast<void*>(static_cast<uintptr_t>(id));
        return error_of(drmModePageFlip(m_fd, m_crtc, buffer.id(), DRM_MODE_PAGE_FLIP_EVENT, data));
    }
    // A request of libdrm's is allocated, copied and sorted for each flip: too much for whoever flips. This is the same
    // with one property.
    const uint32_t properties = 1;
    const uint64_t value = buffer.id();
    auto address = [](const auto& what) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&what)); };
    drm_mode_atomic commit = {};
    commit.flags = DRM_MODE_ATOMIC_NONBLOCK | DRM_MODE_PAGE_FLIP_EVENT;
    commit.count_objs = 1;
    commit.objs_ptr = address(m_plane);
    commit.count_props_ptr = address(properties);
    commit.props_ptr = address(m_plane_fb);
    commit.prop_values_ptr = address(value);
    commit.user_data = id;
    return drmIoctl(m_fd, DRM_IOCTL_MODE_ATOMIC, &commit) == 0 ? 0 : errno;
}

bool KmsCard::connected() const
{
    Connector connector(drmModeGetConnectorCurrent(m_fd, m_connector));
    return connector && connector->connection == DRM_MODE_CONNECTED;
}

/// The card itself went away, not only its display.
bool KmsCard::is_gone() const
{
    errno = 0;
    Connector connector(drmModeGetConnectorCurrent(m_fd, m_connector));
    return (!connector && means_gone(errno)) || access(m_path.c_str(), F_OK) != 0;
}

int KmsCard::revive()
{
    if (is_gone() && !reopen())
        return ENODEV;
    if (drmIsMaster(m_fd) == 0 && drmSetMaster(m_fd) != 0)
        return EACCES;
    if (m_connector == 0 && !find_connector())
        return ENOTCONN;
    // Only now is the display itself asked, which takes some time.
    Connector connector(drmModeGetConnector(m_fd, m_connector));
    if (!connector || connector->connection != DRM_MODE_CONNECTED)
        return ENOTCONN;
    double hz = refresh_hz(m_mode);
    for (const drmModeModeInfo& mode : modes_of(*connector))
        if (mode.hdisplay == m_mode.hdisplay && mode.vdisplay == m_mode.vdisplay && refresh_hz(mode) == hz) {
            m_mode = mode;
            return 0;
        }
    return ENOTSUP;
}

/// Finds the card again. As long as the old one is held open, the number is not free for the new one.
bool KmsCard::reopen()
{
    if (replace_by(m_path))
        return true;
    for (int i = 0; i < cards_to_try; i++)
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
    bool same_kind = driver_name(fd) == m_driver;
    if (same_kind) {
        std::lock_guard<std::mutex> lock(m_mutex);
        same_kind = dup3(fd, m_fd, O_CLOEXEC) >= 0;
        m_generation += same_kind ? 1 : 0;
    }
    close(fd);
    if (!same_kind)
        return false;
    m_path = path;
    m_connector = 0;
    drmModeFreeCrtc(m_before); // nothing that could be put back
    m_before = nullptr;
    return true;
}

/// On a card that was opened anew: the connector of before, which may be counted differently, with the mode of before.
bool KmsCard::find_connector()
{
    // The pictures that are being painted have the size of that mode.
    drmModeModeInfo mode = m_mode;
    bool found = take_connector(refresh_hz(mode)).empty();
    if (!found) {
        m_connector_name.clear();
        found = take_connector(refresh_hz(mode)).empty();
    }
    m_mode = mode;
    return found;
}

void KmsCard::restore()
{
    if (m_before != nullptr && m_before->mode_valid != 0)
        drmModeSetCrtc(m_fd, m_crtc, m_before->buffer_id, m_before->x, m_before->y, &m_connector, 1, &m_before->mode);
    else
        drmModeSetCrtc(m_fd, m_crtc, 0, 0, 0, nullptr, 0, nullptr);
    drmDropMaster(m_fd);
}

} // namespace play
