#include "EmulatedCard.h"

#include <sys/ioctl.h>

#include <sound/asound.h>

#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>

namespace hadrix::test {

namespace {

using IoctlData = UniqueHandle<UMockdevIoctlData, g_object_unref>;

constexpr const char *kLookupKey = "hadrix-lookup";

// The structure a request's argument points to, copied from the client; Put sends it back when
// the request completes.
template <typename T>
class ClientStruct {
public:
    explicit ClientStruct(UMockdevIoctlData *arg) : ClientStruct(arg, 0, 1) {}
    // count structures at the address held at offset of parent.
    ClientStruct(UMockdevIoctlData *parent, size_t offset, size_t count) : value(count)
    {
        g_autoptr(GError) error = nullptr;
        m_data.reset(umockdev_ioctl_data_resolve(parent, offset, count * sizeof(T), &error));
        if (!m_data)
            ADD_FAILURE() << "cannot reach the client's memory: " << (error ? error->message : "null pointer");
        else
            std::memcpy(value.data(), m_data->data, count * sizeof(T));
    }
    T &operator*() { return value.front(); }
    T *operator->() { return &value.front(); }
    void Put() { umockdev_ioctl_data_update(m_data.get(), 0, reinterpret_cast<guint8 *>(value.data()), Size()); }
    UMockdevIoctlData *Data() const { return m_data.get(); }

    std::vector<T> value;

private:
    gint Size() const { return static_cast<gint>(value.size() * sizeof(T)); }
    IoctlData m_data;
};

template <size_t N>
void PutText(unsigned char (&field)[N], const std::string &text)
{
    g_strlcpy(reinterpret_cast<char *>(field), text.c_str(), N);
}

std::string IdName(const snd_ctl_elem_id &id)
{
    const char *name = reinterpret_cast<const char *>(id.name);
    return std::string(name, strnlen(name, sizeof id.name));
}

int IfaceNumber(ControlIface iface)
{
    return iface == ControlIface::Card ? SNDRV_CTL_ELEM_IFACE_CARD : SNDRV_CTL_ELEM_IFACE_MIXER;
}

int TypeNumber(ControlType type)
{
    switch (type) {
    case ControlType::Boolean:
        return SNDRV_CTL_ELEM_TYPE_BOOLEAN;
    case ControlType::Enumerated:
        return SNDRV_CTL_ELEM_TYPE_ENUMERATED;
    case ControlType::Bytes:
        return SNDRV_CTL_ELEM_TYPE_BYTES;
    case ControlType::Integer64:
        return SNDRV_CTL_ELEM_TYPE_INTEGER64;
    default:
        return SNDRV_CTL_ELEM_TYPE_INTEGER;
    }
}

snd_ctl_elem_id PackId(unsigned int numid, const CardControl &control)
{
    snd_ctl_elem_id id{};
    id.numid = numid;
    id.iface = IfaceNumber(control.iface);
    PutText(id.name, control.name);
    return id;
}

unsigned int Access(const CardControl &control)
{
    return (control.readable ? SNDRV_CTL_ELEM_ACCESS_READ : 0) | (control.writable ? SNDRV_CTL_ELEM_ACCESS_WRITE : 0) |
           (control.inactive ? SNDRV_CTL_ELEM_ACCESS_INACTIVE : 0);
}

long ChannelValue(const snd_ctl_elem_value &value, ControlType type, size_t channel)
{
    switch (type) {
    case ControlType::Enumerated:
        return value.value.enumerated.item[channel];
    case ControlType::Bytes:
        return value.value.bytes.data[channel];
    case ControlType::Integer64:
        return static_cast<long>(value.value.integer64.value[channel]);
    default:
        return value.value.integer.value[channel];
    }
}

void SetChannelValue(snd_ctl_elem_value &value, ControlType type, size_t channel, long channelValue)
{
    switch (type) {
    case ControlType::Enumerated:
        value.value.enumerated.item[channel] = static_cast<unsigned int>(channelValue);
        break;
    case ControlType::Bytes:
        value.value.bytes.data[channel] = static_cast<unsigned char>(channelValue);
        break;
    case ControlType::Integer64:
        value.value.integer64.value[channel] = channelValue;
        break;
    default:
        value.value.integer.value[channel] = channelValue;
    }
}

// Whether the kernel would take the value for the control.
bool IsValid(const CardControl &control, long value)
{
    switch (control.type) {
    case ControlType::Boolean:
        return value == 0 || value == 1;
    case ControlType::Enumerated:
        return value >= 0 && static_cast<size_t>(value) < control.items.size();
    case ControlType::Bytes:
        return value >= 0 && value <= 255;
    default:
        return value >= control.min && value <= control.max;
    }
}

// The control the id names the way the kernel looks it up: by numid when it has one, else by
// interface, device, subdevice, name and index. Null when there is none.
CardControl *Find(std::vector<CardControl> &controls, const snd_ctl_elem_id &id, unsigned int &numid)
{
    numid = id.numid;
    if (!numid) {
        auto named = std::find_if(controls.begin(), controls.end(), [&](const CardControl &control) {
            return control.name == IdName(id) && IfaceNumber(control.iface) == static_cast<int>(id.iface) &&
                   id.device == 0 && id.subdevice == 0 && id.index == 0;
        });
        numid = static_cast<unsigned int>(named - controls.begin()) + 1;
    }
    return numid >= 1 && numid <= controls.size() ? &controls[numid - 1] : nullptr;
}

// The errno a write of these values is answered with, 0 when the card takes it.
int WriteError(const CardControl &control, const std::vector<long> &values)
{
    if (!control.writable)
        return EPERM;
    if (!std::all_of(values.begin(), values.end(), [&](long value) { return IsValid(control, value); }))
        return EINVAL;
    return control.writesBeforeError ? 0 : control.writeError;
}

} // namespace

UMockdevTestbed *CardTestbed()
{
    static const UniqueHandle<UMockdevTestbed, g_object_unref> testbed = [] {
        UniqueHandle<UMockdevTestbed, g_object_unref> made(umockdev_testbed_new());
        g_autofree gchar *root = umockdev_testbed_get_root_dir(made.get());
        g_autofree gchar *catchAll = g_build_filename(root, "ioctl", "_default", nullptr);
        g_unlink(catchAll);
        return made;
    }();
    return testbed.get();
}

CardControl Volume(const std::string &name, std::vector<long> values, long min, long max)
{
    CardControl control;
    control.name = name;
    control.values = std::move(values);
    control.min = min;
    control.max = max;
    return control;
}

CardControl Switch(const std::string &name, std::vector<long> values)
{
    CardControl control = Volume(name, std::move(values), 0, 1);
    control.type = ControlType::Boolean;
    return control;
}

CardControl Enumerated(const std::string &name, long item, std::vector<std::string> items)
{
    CardControl control = Volume(name, {item}, 0, 0);
    control.type = ControlType::Enumerated;
    control.items = std::move(items);
    return control;
}

void PrintTo(const CardWrite &write, std::ostream *out)
{
    *out << write.control << " (looked up as " << write.lookedUpAs << ") <-";
    for (long value : write.values)
        *out << ' ' << value;
    if (write.error)
        *out << ", answered " << g_strerror(write.error);
}

EmulatedCard::EmulatedCard(int number, std::vector<CardControl> controls)
    : m_number(number), m_node("/dev/snd/controlC" + std::to_string(number)), m_device(umockdev_ioctl_base_new()),
      m_controls(std::move(controls))
{
    g_autofree gchar *root = umockdev_testbed_get_root_dir(CardTestbed());
    m_file = root + m_node;
    g_autofree gchar *dir = g_path_get_dirname(m_file.c_str());
    g_mkdir_with_parents(dir, 0755);
    g_autoptr(GError) error = nullptr;
    if (!g_file_set_contents(m_file.c_str(), "", 0, &error))
        ADD_FAILURE() << error->message;
    g_signal_connect(m_device.get(), "handle-ioctl", G_CALLBACK(OnIoctl), this);
    g_signal_connect(m_device.get(), "client-connected", G_CALLBACK(OnConnected), this);
    if (!umockdev_testbed_attach_ioctl(CardTestbed(), m_node.c_str(), m_device.get(), &error))
        ADD_FAILURE() << error->message;
}

EmulatedCard::~EmulatedCard()
{
    umockdev_testbed_detach_ioctl(CardTestbed(), m_node.c_str(), nullptr);
    g_signal_handlers_disconnect_by_data(m_device.get(), this);
    g_unlink(m_file.c_str());
}

void EmulatedCard::FailRequest(unsigned long request, int error)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_failing.emplace_back(request, error);
}

std::vector<CardWrite> EmulatedCard::Writes() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_writes;
}

std::vector<long> EmulatedCard::Values(const std::string &control) const
{
    std::lock_guard<std::mutex> lock(m_lock);
    for (const CardControl &c : m_controls) {
        if (c.name == control)
            return c.values;
    }
    ADD_FAILURE() << "no control " << control;
    return {};
}

int EmulatedCard::Connections() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_connections;
}

void EmulatedCard::OnConnected(UMockdevIoctlBase *, UMockdevIoctlClient *, gpointer self)
{
    auto *card = static_cast<EmulatedCard *>(self);
    std::lock_guard<std::mutex> lock(card->m_lock);
    ++card->m_connections;
}

gboolean EmulatedCard::OnIoctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer self)
{
    auto *card = static_cast<EmulatedCard *>(self);
    int result;
    {
        std::lock_guard<std::mutex> lock(card->m_lock);
        result = card->Answer(client);
    }
    umockdev_ioctl_client_complete(client, result < 0 ? -1 : result, result < 0 ? -result : 0);
    return TRUE;
}

// A result, or minus the errno.
int EmulatedCard::Answer(UMockdevIoctlClient *client)
{
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(client);
    for (const auto &[failing, error] : m_failing) {
        if (failing == request)
            return -error;
    }
    switch (request) {
    case SNDRV_CTL_IOCTL_PVERSION: {
        ClientStruct<int> version(arg);
        *version = SNDRV_CTL_VERSION;
        version.Put();
        return 0;
    }
    case SNDRV_CTL_IOCTL_CARD_INFO:
        return CardInfo(arg);
    case SNDRV_CTL_IOCTL_ELEM_LIST:
        return ElemList(arg);
    case SNDRV_CTL_IOCTL_ELEM_INFO:
        return ElemInfo(client);
    case SNDRV_CTL_IOCTL_ELEM_READ:
        return ElemRead(arg);
    case SNDRV_CTL_IOCTL_ELEM_WRITE:
        return ElemWrite(client);
    case SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS:
        return 0;
    default:
        ADD_FAILURE() << "control request " << std::hex << request << " is not emulated";
        return -ENOTTY;
    }
}

int EmulatedCard::CardInfo(UMockdevIoctlData *arg)
{
    ClientStruct<snd_ctl_card_info> info(arg);
    *info = {};
    info->card = m_number;
    PutText(info->id, "Headset");
    PutText(info->name, "USB Headset");
    info.Put();
    return 0;
}

int EmulatedCard::ElemList(UMockdevIoctlData *arg)
{
    ClientStruct<snd_ctl_elem_list> list(arg);
    const unsigned int count = static_cast<unsigned int>(m_controls.size());
    list->count = count;
    list->used = list->offset < count ? std::min(list->space, count - list->offset) : 0;
    if (list->used) {
        ClientStruct<snd_ctl_elem_id> ids(list.Data(), offsetof(snd_ctl_elem_list, pids), list->used);
        for (unsigned int i = 0; i < list->used; ++i)
            ids.value[i] = PackId(list->offset + i + 1, m_controls[list->offset + i]);
        ids.Put();
    }
    list.Put();
    return 0;
}

int EmulatedCard::ElemInfo(UMockdevIoctlClient *client)
{
    ClientStruct<snd_ctl_elem_info> info(umockdev_ioctl_client_get_arg(client));
    // The write that follows on this client names the control by its full id, numid included.
    const std::string lookup =
        info->id.numid ? "numid=" + std::to_string(info->id.numid) : "name='" + IdName(info->id) + "'";
    g_object_set_data_full(G_OBJECT(client), kLookupKey, g_strdup(lookup.c_str()), g_free);
    unsigned int numid = 0;
    const CardControl *control = Find(m_controls, info->id, numid);
    if (!control)
        return -ENOENT;
    const unsigned int item = info->value.enumerated.item;
    *info = {};
    info->id = PackId(numid, *control);
    info->type = TypeNumber(control->type);
    info->access = Access(*control);
    info->count = static_cast<unsigned int>(control->values.size());
    info->owner = -1;
    if (control->type == ControlType::Enumerated) {
        info->value.enumerated.items = static_cast<unsigned int>(control->items.size());
        info->value.enumerated.item = std::min<unsigned int>(item, info->value.enumerated.items - 1);
        g_strlcpy(info->value.enumerated.name, control->items[info->value.enumerated.item].c_str(),
                  sizeof info->value.enumerated.name);
    } else if (control->type == ControlType::Integer64) {
        info->value.integer64 = {control->min, control->max, 1};
    } else {
        info->value.integer = {control->min, control->max, 1};
    }
    info.Put();
    return 0;
}

int EmulatedCard::ElemRead(UMockdevIoctlData *arg)
{
    ClientStruct<snd_ctl_elem_value> value(arg);
    unsigned int numid = 0;
    const CardControl *control = Find(m_controls, value->id, numid);
    if (!control)
        return -ENOENT;
    if (!control->readable)
        return -EPERM;
    *value = {};
    value->id = PackId(numid, *control);
    for (size_t i = 0; i < control->values.size(); ++i)
        SetChannelValue(*value, control->type, i, control->values[i]);
    value.Put();
    return 0;
}

int EmulatedCard::ElemWrite(UMockdevIoctlClient *client)
{
    ClientStruct<snd_ctl_elem_value> value(umockdev_ioctl_client_get_arg(client));
    unsigned int numid = 0;
    CardControl *control = Find(m_controls, value->id, numid);
    if (!control)
        return -ENOENT;
    const char *lookup = static_cast<const char *>(g_object_get_data(G_OBJECT(client), kLookupKey));
    CardWrite write{control->name, lookup ? lookup : "", {}, 0};
    for (size_t i = 0; i < control->values.size(); ++i)
        write.values.push_back(ChannelValue(*value, control->type, i));
    write.error = WriteError(*control, write.values);
    m_writes.push_back(write);
    if (write.error)
        return -write.error;
    control->writesBeforeError = std::max(control->writesBeforeError - 1, 0);
    for (size_t i = 0; i < write.values.size(); ++i)
        control->values[i] = control->keeps ? std::min(write.values[i], *control->keeps) : write.values[i];
    return 0;
}

} // namespace hadrix::test
