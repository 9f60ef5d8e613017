// The client API server: its listener thread, the bus callbacks, the four methods, the broadcast
// to subscribers and the subscriber file.
#include "HadrixDbusAPIServer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <locale>
#include <memory>
#include <sstream>
#include <sys/stat.h>
#include <system_error>

#include "DiagnosticsApi.h"
#include "HadrixBusNames.h"
#include "HadrixDeviceListInfo.h"
#include "LocalFileData.h"
#include "Log.h"
#include "USBDevice.h"
#include "nimbos/paths.h"

namespace {

using namespace hadrix::api;

constexpr char kSubscriberFile[] = "hadrix/data/.subscriber";

// Copies of the generated introspection data, without the code generator's annotations, which
// are not part of the interface that clients see: every annotation list is left empty, as in
// data parsed from introspection text without annotations.
GDBusAnnotationInfo **NoAnnotations()
{
    return g_new0(GDBusAnnotationInfo *, 1);
}

GDBusArgInfo **CopyArgs(GDBusArgInfo **args)
{
    if (!args)
        return nullptr;
    const guint count = g_strv_length(reinterpret_cast<gchar **>(args));
    auto **copies = g_new0(GDBusArgInfo *, count + 1);
    for (guint i = 0; i < count; ++i) {
        copies[i] = g_new0(GDBusArgInfo, 1);
        copies[i]->ref_count = 1;
        copies[i]->name = g_strdup(args[i]->name);
        copies[i]->signature = g_strdup(args[i]->signature);
        copies[i]->annotations = NoAnnotations();
    }
    return copies;
}

template <typename Info, typename Copy>
Info **CopyMembers(Info **members, Copy copy)
{
    const guint count = members ? g_strv_length(reinterpret_cast<gchar **>(members)) : 0;
    auto **copies = g_new0(Info *, count + 1);
    guint kept = 0;
    for (guint i = 0; i < count; ++i) {
        if (Info *member = copy(members[i]))
            copies[kept++] = member;
    }
    return copies;
}

// The interface of the object that serves the methods: the one src/dbus/hadrix-server.xml
// describes, less the integer signal that only the generated skeleton carries.
GDBusInterfaceInfo *NewServedInterfaceInfo()
{
    const GDBusInterfaceInfo *generated = org_nimbos_hadrix_server_interface_interface_info();
    auto *info = g_new0(GDBusInterfaceInfo, 1);
    info->ref_count = 1;
    info->name = g_strdup(generated->name);
    info->methods = CopyMembers(generated->methods, [](GDBusMethodInfo *method) {
        auto *copy = g_new0(GDBusMethodInfo, 1);
        copy->ref_count = 1;
        copy->name = g_strdup(method->name);
        copy->in_args = CopyArgs(method->in_args);
        copy->out_args = CopyArgs(method->out_args);
        copy->annotations = NoAnnotations();
        return copy;
    });
    info->signals = CopyMembers(generated->signals, [](GDBusSignalInfo *signal) -> GDBusSignalInfo * {
        if (g_strcmp0(signal->name, kSendMessage) == 0)
            return nullptr;
        auto *copy = g_new0(GDBusSignalInfo, 1);
        copy->ref_count = 1;
        copy->name = g_strdup(signal->name);
        copy->args = CopyArgs(signal->args);
        copy->annotations = NoAnnotations();
        return copy;
    });
    info->properties = g_new0(GDBusPropertyInfo *, 1);
    info->annotations = NoAnnotations();
    return info;
}

// The broadcast carries no information of its own: its arrival is the news.
constexpr gint32 kPlaceholderKey = 123;
constexpr gint32 kPlaceholderValue = 321;
constexpr gint32 kDeviceChangedMessage = 10;

static_assert(CUSBAPIServer::kMaxSubscribers * (2 * CUSBAPIServer::kMaxWordBytes + 2) <
                  CUSBAPIServer::kMaxSubscriberFileBytes,
              "a full subscriber table fits the file bound");

// The reader splits words where the classic locale sees white space: ' ', \t, \n, \v, \f, \r.
bool IsWordSeparator(char c)
{
    return std::isspace(c, std::locale::classic());
}

// The name a log line may show of a caller: its unique bus name, never the text it sent.
const char *Caller(GDBusMethodInvocation *invocation)
{
    const char *sender = g_dbus_method_invocation_get_sender(invocation);
    return sender ? sender : "(no sender)";
}

// The next word of `in`, read at most kMaxWordBytes + 1 bytes into `word`; the rest of a longer
// word is skipped, so that it still counts as one word and the words after it keep their places.
bool ReadWord(std::istream &in, std::string &word)
{
    if (!(in >> std::setw(CUSBAPIServer::kMaxWordBytes + 1) >> word))
        return false;
    if (word.size() > CUSBAPIServer::kMaxWordBytes) {
        while (in.peek() != std::char_traits<char>::eof() &&
               !IsWordSeparator(std::char_traits<char>::to_char_type(in.peek())))
            in.ignore();
    }
    return true;
}

// At most the first kMaxSubscriberFileBytes of `in`, ending at a word's end: a bigger file was not
// written by the service, and a word cut at the bound would be read as another word.
std::string ReadBoundedText(std::istream &in)
{
    std::string text(CUSBAPIServer::kMaxSubscriberFileBytes + 1, '\0');
    in.read(&text[0], static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(in.gcount()));
    if (text.size() > CUSBAPIServer::kMaxSubscriberFileBytes) {
        LOGW("subscriber file larger than %zu bytes: the rest is ignored", CUSBAPIServer::kMaxSubscriberFileBytes);
        text.resize(CUSBAPIServer::kMaxSubscriberFileBytes);
        const auto wordEnd = std::find_if(text.rbegin(), text.rend(), IsWordSeparator);
        text.erase(static_cast<size_t>(text.rend() - wordEnd));
    }
    return text;
}

gboolean QuitLoopCb(gpointer data)
{
    g_main_loop_quit(static_cast<GMainLoop *>(data));
    return G_SOURCE_REMOVE;
}

// A quit asked from another thread, or before the loop runs, is carried out by the loop itself.
void QuitLoopFromItsContext(GMainContext *context, GMainLoop *loop)
{
    GSource *source = g_idle_source_new();
    g_source_set_callback(source, QuitLoopCb, g_main_loop_ref(loop),
                          reinterpret_cast<GDestroyNotify>(g_main_loop_unref));
    g_source_attach(source, context);
    g_source_unref(source);
}

} // namespace

CUSBAPIServer::CUSBAPIServer() : m_InterfaceVTable{m_HandleMethodCall, nullptr, nullptr, {}}
{
    LOGD("CUSBAPIServer");
}

CUSBAPIServer::~CUSBAPIServer()
{
    if (m_ListenerThread.joinable())
        DestroyListener();
}

std::string CUSBAPIServer::SubscriberFilePath()
{
    return nimbos::DataRoot() + kSubscriberFile;
}

bool CUSBAPIServer::CreateListener()
{
    LOGI("CreateListener Enter");
    if (m_ListenerThread.joinable()) {
        LOGW("the listener is already running");
        return true;
    }
    m_LoadConnection();
    {
        std::lock_guard<std::mutex> lock(m_LoopMutex);
        m_bStopping = false;
    }
    try {
        m_ListenerThread = std::thread(m_Listener, this);
    } catch (const std::system_error &) {
        LOGE("pthread_create(m_Listener) fail");
        return false;
    }
    return true;
}

void CUSBAPIServer::DestroyListener()
{
    LOGI("DestroyListener Enter");
    {
        std::lock_guard<std::mutex> lock(m_LoopMutex);
        m_bStopping = true;
        if (m_pMainLoop)
            QuitLoopFromItsContext(m_pContext, m_pMainLoop);
    }
    if (m_ListenerThread.joinable()) {
        try {
            m_ListenerThread.join();
        } catch (const std::system_error &) {
            LOGE("pthread_join(m_threadId) fail");
        }
    }
    m_ReleaseSkeleton();
}

void *CUSBAPIServer::m_Listener(void *data)
{
    auto *self = static_cast<CUSBAPIServer *>(data);
    LOGI("m_Listener Enter");
    g_autoptr(GMainContext) context = g_main_context_new();
    g_main_context_push_thread_default(context);

    self->m_pInterfaceInfo.reset(NewServedInterfaceInfo());
    const guint ownerId = g_bus_own_name(G_BUS_TYPE_SYSTEM, kBusName, G_BUS_NAME_OWNER_FLAGS_NONE,
                                         m_OnBusAcquired, m_OnNameAcquired, m_OnNameLost, self,
                                         nullptr);
    if (ownerId == 0) {
        LOGE("0 == nOwnerId");
    } else {
        g_autoptr(GMainLoop) loop = g_main_loop_new(context, FALSE);
        if (self->m_PrepareLoop(context, loop))
            g_main_loop_run(loop);
        self->m_ReleaseLoop();
        g_bus_unown_name(ownerId);
    }

    if (CDiagnosticsApi *diagnostics = CSingleton<CDiagnosticsApi>::PeekInstance())
        diagnostics->Unregister();
    if (self->m_nRegisterId != 0) {
        g_dbus_connection_unregister_object(self->m_pConnection.get(), self->m_nRegisterId);
        self->m_nRegisterId = 0;
    }
    self->m_pConnection.reset();
    self->m_pInterfaceInfo.reset();
    g_main_context_pop_thread_default(context);
    return nullptr;
}

bool CUSBAPIServer::m_PrepareLoop(GMainContext *context, GMainLoop *loop)
{
    std::lock_guard<std::mutex> lock(m_LoopMutex);
    if (m_bStopping)
        return false;
    m_pContext = context;
    m_pMainLoop = loop;
    return true;
}

void CUSBAPIServer::m_ReleaseLoop()
{
    std::lock_guard<std::mutex> lock(m_LoopMutex);
    m_pMainLoop = nullptr;
    m_pContext = nullptr;
}

void CUSBAPIServer::m_OnBusAcquired(GDBusConnection *connection, const gchar *, gpointer data)
{
    LOGI("m_OnBusAcquired Enter");
    auto *self = static_cast<CUSBAPIServer *>(data);
    if (!self) {
        LOGE("pInstance is NULL");
        return;
    }
    g_autoptr(GError) error = nullptr;
    self->m_nRegisterId = g_dbus_connection_register_object(
        connection, kObjectPath, self->m_pInterfaceInfo.get(), &self->m_InterfaceVTable, self,
        nullptr, &error);
    if (error) {
        LOGE("NULL != pError");
        LOGE("%s", error->message);
        if (self->m_nRegisterId != 0)
            g_dbus_connection_unregister_object(connection, self->m_nRegisterId);
        self->m_nRegisterId = 0;
    }
    if (self->m_nRegisterId == 0) {
        LOGE("pInstance->m_nRegisterId is 0");
        return;
    }
    self->m_pConnection.reset(G_DBUS_CONNECTION(g_object_ref(connection)));
    LOGI("m_nRegisterId[%d]", self->m_nRegisterId);
    self->m_ExportSkeleton(connection);
    CSingleton<CDiagnosticsApi>::GetInstance()->Register(connection);
}

void CUSBAPIServer::m_ExportSkeleton(GDBusConnection *connection)
{
    OrgNimbosHadrixServerInterface *skeleton = org_nimbos_hadrix_server_interface_skeleton_new();
    if (!skeleton) {
        LOGE("m_pSkeleton is NULL\n");
        return;
    }
    LOGI("m_pSkeleton is not NULL\n");
    {
        std::lock_guard<std::mutex> lock(m_SkeletonMutex);
        m_pSkeleton.reset(skeleton);
    }
    g_autoptr(GError) error = nullptr;
    if (g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton), connection,
                                         kSignalPath, &error))
        LOGI("g_dbus_interface_skeleton_export success\n");
    else
        LOGE("g_dbus_interface_skeleton_export fail\n");
}

void CUSBAPIServer::m_OnNameAcquired(GDBusConnection *, const gchar *, gpointer)
{
    LOGI("m_OnNameAcquired Enter");
}

void CUSBAPIServer::m_OnNameLost(GDBusConnection *, const gchar *, gpointer)
{
    LOGE("m_OnNameLost Enter");
}

OrgNimbosHadrixServerInterface *CUSBAPIServer::m_RefSkeleton()
{
    std::lock_guard<std::mutex> lock(m_SkeletonMutex);
    return m_pSkeleton ? static_cast<OrgNimbosHadrixServerInterface *>(g_object_ref(m_pSkeleton.get()))
                       : nullptr;
}

void CUSBAPIServer::m_ReleaseSkeleton()
{
    SkeletonPtr skeleton;
    {
        std::lock_guard<std::mutex> lock(m_SkeletonMutex);
        skeleton = std::move(m_pSkeleton);
    }
    if (skeleton)
        g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(skeleton.get()));
}

void CUSBAPIServer::m_HandleMethodCall(GDBusConnection *, const gchar *, const gchar *,
                                       const gchar *, const gchar *methodName, GVariant *parameters,
                                       GDBusMethodInvocation *invocation, gpointer data)
{
    LOGI("m_HandleMethodCall Enter");
    auto *self = static_cast<CUSBAPIServer *>(data);
    if (!self) {
        LOGE("pInstance is NULL");
        return;
    }
    if (g_strcmp0(methodName, kCheckDbusConnection) == 0)
        self->m_CheckDbusConnection(parameters, invocation);
    else if (g_strcmp0(methodName, kSubscribe) == 0)
        self->m_ReceiveSubscribeHadrixServiceCallback(parameters, invocation);
    else if (g_strcmp0(methodName, kUnsubscribe) == 0)
        self->m_ReceiveUnsubscribeHadrixServiceCallback(parameters, invocation);
    else if (g_strcmp0(methodName, kGetDeviceListInfo) == 0)
        self->m_ReceiveGetDeviceListInfo(parameters, invocation);
}

void CUSBAPIServer::m_CheckDbusConnection(GVariant *parameters, GDBusMethodInvocation *invocation)
{
    const gchar *processName = nullptr;
    g_variant_get(parameters, "(&s)", &processName);
    g_dbus_method_invocation_return_value(
        invocation, g_variant_new("(s)", ClientObjectName(processName).c_str()));
}

void CUSBAPIServer::m_ReceiveSubscribeHadrixServiceCallback(GVariant *parameters,
                                                            GDBusMethodInvocation *invocation)
{
    LOGI("m_ReceiveSubscribeHadrixServiceCallback Enter");
    const gchar *processName = nullptr;
    g_variant_get(parameters, "(&s)", &processName);
    if (const char *fault = WordFault(processName)) {
        LOGE("subscription of %s refused: the process name cannot be stored: %s", Caller(invocation), fault);
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                              "the process name cannot be stored: %s (it must be one "
                                              "word of 1 to 255 bytes of UTF-8 without white space)",
                                              fault);
        return;
    }
    const std::string clientObj = ClientObjectName(processName);
    if (!m_StoreSubscriber(processName, clientObj)) {
        LOGE("subscription of %s refused: the subscriber table is full (%zu processes)", Caller(invocation),
             kMaxSubscribers);
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED,
                                              "the subscriber table is full (%zu processes)", kMaxSubscribers);
        return;
    }
    m_SaveConnection();
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", clientObj.c_str()));
}

bool CUSBAPIServer::m_StoreSubscriber(const char *processName, const std::string &clientObj)
{
    std::lock_guard<std::mutex> lock(m_ConnectionMutex);
    auto known = m_MapConnection.find(processName);
    if (known != m_MapConnection.end())
        known->second = clientObj;
    else if (m_MapConnection.size() < kMaxSubscribers)
        m_MapConnection.emplace(processName, clientObj);
    else
        return false;
    LOGI("process:[%s] establish clientObj:[%s]", processName, clientObj.c_str());
    return true;
}

void CUSBAPIServer::m_ReceiveUnsubscribeHadrixServiceCallback(GVariant *parameters,
                                                              GDBusMethodInvocation *invocation)
{
    LOGI("m_ReceiveUnsubscribeHadrixServiceCallback Enter");
    const gchar *processName = nullptr;
    g_variant_get(parameters, "(&s)", &processName);
    const std::string clientObj = ClientObjectName(processName);
    // A name that could never be stored is not in the table or the file: like any unknown
    // process it is answered normally, and nothing is written.
    if (const char *fault = WordFault(processName)) {
        LOGW("unsubscription of %s: nothing to remove, the process name could not be stored: %s",
             Caller(invocation), fault);
    } else {
        LOGI("process:[%s] establish clientObj:[%s]", processName, clientObj.c_str());
        {
            std::lock_guard<std::mutex> lock(m_ConnectionMutex);
            m_MapConnection.erase(processName);
        }
        m_SaveConnection();
    }
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", clientObj.c_str()));
}

void CUSBAPIServer::m_ReceiveGetDeviceListInfo(GVariant *, GDBusMethodInvocation *invocation)
{
    LOGI("m_ReceiveGetDeviceListInfo Enter");
    auto list = std::make_unique<HadrixDeviceListInfo_t>(); // value-initialised: all zero
    // The device manager is rebuilt on the main loop after standby: hold it while reading.
    const int count =
        CSingleton<CUSBDevice>::WithInstance([&list](CUSBDevice &devices) { return devices.GetNetDeviceList(list.get()); });
    LOGI("NetDeviceSize[%d]", count);
    for (int index = 0; index < count; ++index) {
        const HadrixDeviceRecord_t &record = list->device[index];
        const int volume = GINT32_FROM_LE(record.volumeLevel);
        LOGI("Device Index:[%d],Productname:[%s],Manufacturer:[%s],ConnectStatus:[%s],"
             "Volumelevel:[%d],Type:[%s],Selected:[%d]",
             index, record.productName, record.manufacturer, record.connectStatus, volume,
             record.type, record.selected);
    }
    GVariant *bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, list->device,
                                                count * sizeof(HadrixDeviceRecord_t), 1);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(@ay)", bytes));
}

void CUSBAPIServer::m_SendEventToClient(void *)
{
    LOGI("m_SendEventToClient Enter");
    g_autoptr(OrgNimbosHadrixServerInterface) skeleton = GetInstance()->m_RefSkeleton();
    if (!skeleton) {
        LOGW("m_SendEventToClient OUT for server not ready");
        return;
    }
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ii}"));
    g_variant_builder_add(&builder, "{ii}", kPlaceholderKey, kPlaceholderValue);
    org_nimbos_hadrix_server_interface_emit_notify_client_message(skeleton,
                                                                  g_variant_builder_end(&builder));
    org_nimbos_hadrix_server_interface_emit_send_message(skeleton, kDeviceChangedMessage);
    LOGI("m_SendEventToClient end");
}

// Only the result of the first look decides about a link. The table is written to a temporary
// file renamed over the old one, so that a crash in the middle leaves the previous subscribers,
// and a link planted after the look is replaced, not written through.
void CUSBAPIServer::m_SaveConnection()
{
    const std::string path = SubscriberFilePath();
    struct stat info;
    const bool existed = lstat(path.c_str(), &info) == 0;
    if (existed && S_ISLNK(info.st_mode)) {
        LOGE("symbolic link is detected");
        return;
    }
    std::string text;
    {
        std::lock_guard<std::mutex> lock(m_ConnectionMutex);
        text = FormatSubscribers(m_MapConnection);
    }
    if (!CLocalFileData::ReplaceResolvedFile(path, text.data(), text.size())) {
        LOGE("cannot write %s: %s", path.c_str(), strerror(errno));
        return;
    }
    if (!existed)
        LOGI("create hadrix/data/.subscriber successfully");
}

void CUSBAPIServer::m_LoadConnection()
{
    LOGI("m_LoadConnection Enter");
    CLocalFileData::RemoveUnfinishedReplacements(SubscriberFilePath());
    std::ifstream file(SubscriberFilePath());
    if (!file) {
        LOGW("open connection file failed");
        return;
    }
    for (const auto &[procName, connectionObj] : ReadSubscribers(file)) {
        LOGI("procName[%s], connectionObj[%s]", procName.c_str(), connectionObj.c_str());
        std::lock_guard<std::mutex> lock(m_ConnectionMutex);
        m_MapConnection.emplace(procName, connectionObj);
    }
}

const char *CUSBAPIServer::WordFault(std::string_view word)
{
    if (word.empty())
        return "it is empty";
    if (word.size() > kMaxWordBytes)
        return "it is longer than 255 bytes";
    if (std::any_of(word.begin(), word.end(), IsWordSeparator))
        return "it holds white space";
    // With a length, g_utf8_validate also refuses NUL bytes, which no D-Bus string holds.
    if (!g_utf8_validate(word.data(), static_cast<gssize>(word.size()), nullptr))
        return "it is not UTF-8 text";
    return nullptr;
}

std::string CUSBAPIServer::ClientObjectName(const char *processName)
{
    char name[kMaxWordBytes + 1];
    snprintf(name, sizeof name, "obj%s", processName);
    // The name goes back over D-Bus, which carries UTF-8 only: a cut through a character of a
    // long name drops what is left of that character.
    const gchar *validEnd = nullptr;
    if (!g_utf8_validate(name, -1, &validEnd))
        return std::string(name, static_cast<size_t>(validEnd - name));
    return name;
}

std::string CUSBAPIServer::FormatSubscribers(const SubscriberTable &table)
{
    std::string text;
    for (const auto &entry : table)
        text += entry.first + " " + entry.second + "\n";
    return text;
}

std::vector<std::pair<std::string, std::string>> CUSBAPIServer::ReadSubscribers(std::istream &in)
{
    std::istringstream words(ReadBoundedText(in));
    words.imbue(std::locale::classic());
    std::vector<std::pair<std::string, std::string>> subscribers;
    std::string procName;
    std::string connectionObj;
    for (size_t entry = 1; ReadWord(words, procName) && ReadWord(words, connectionObj); ++entry) {
        if (subscribers.size() == kMaxSubscribers) {
            LOGW("subscriber file holds more than %zu entries: the rest is ignored", kMaxSubscribers);
            break;
        }
        const char *fault = WordFault(procName);
        if (fault || (fault = WordFault(connectionObj))) {
            LOGW("subscriber entry %zu ignored: %s", entry, fault);
            continue;
        }
        subscribers.emplace_back(procName, connectionObj);
    }
    return subscribers;
}
