#include "JsonVariant.h"

#include <exception>
#include <memory>
#include <string>

namespace {

// The value of one member, or null for a kind the mapping does not carry.
GVariant *MemberToVariant(const Json::Value &value)
{
    switch (value.type()) {
    case Json::objectValue:
        return JsonToVariant(value);
    case Json::stringValue: {
        const std::string text = value.asString();
        // D-Bus strings are UTF-8 without NUL bytes.
        if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr))
            return nullptr;
        return g_variant_new_string(text.c_str());
    }
    case Json::booleanValue:
        return g_variant_new_boolean(value.asBool());
    case Json::intValue:
    case Json::uintValue:
        return value.isInt64() ? g_variant_new_int64(value.asInt64()) : nullptr;
    default:
        return nullptr;
    }
}

bool IntegerToJson(GVariant *value, Json::Value &out)
{
    const GVariantClass kind = g_variant_classify(value);
    switch (kind) {
    case G_VARIANT_CLASS_BYTE:
        out = Json::Value(static_cast<Json::Int64>(g_variant_get_byte(value)));
        return true;
    case G_VARIANT_CLASS_INT16:
        out = Json::Value(static_cast<Json::Int64>(g_variant_get_int16(value)));
        return true;
    case G_VARIANT_CLASS_UINT16:
        out = Json::Value(static_cast<Json::Int64>(g_variant_get_uint16(value)));
        return true;
    case G_VARIANT_CLASS_INT32:
        out = Json::Value(static_cast<Json::Int64>(g_variant_get_int32(value)));
        return true;
    case G_VARIANT_CLASS_UINT32:
        out = Json::Value(static_cast<Json::Int64>(g_variant_get_uint32(value)));
        return true;
    case G_VARIANT_CLASS_INT64:
        out = Json::Value(static_cast<Json::Int64>(g_variant_get_int64(value)));
        return true;
    case G_VARIANT_CLASS_UINT64:
        out = Json::Value(static_cast<Json::UInt64>(g_variant_get_uint64(value)));
        return true;
    default:
        return false;
    }
}

bool MemberToJson(GVariant *value, Json::Value &out)
{
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_VARDICT)) {
        out = VariantToJson(value);
        return true;
    }
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
        out = Json::Value(g_variant_get_string(value, nullptr));
        return true;
    }
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN)) {
        out = Json::Value(g_variant_get_boolean(value) != FALSE);
        return true;
    }
    return IntegerToJson(value, out);
}

} // namespace

GVariant *JsonToVariant(const Json::Value &object)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    if (object.isObject()) {
        for (const std::string &name : object.getMemberNames()) {
            if (GVariant *value = MemberToVariant(object[name]))
                g_variant_builder_add(&builder, "{sv}", name.c_str(), value);
        }
    }
    return g_variant_builder_end(&builder);
}

Json::Value VariantToJson(GVariant *dictionary)
{
    Json::Value json(Json::objectValue);
    if (!dictionary || !g_variant_is_of_type(dictionary, G_VARIANT_TYPE_VARDICT))
        return json;
    GVariantIter iter;
    const gchar *name = nullptr;
    GVariant *value = nullptr;
    g_variant_iter_init(&iter, dictionary);
    while (g_variant_iter_next(&iter, "{&sv}", &name, &value)) {
        Json::Value member;
        if (MemberToJson(value, member))
            json[name] = member;
        g_variant_unref(value);
    }
    return json;
}

bool ParseJson(const std::string &text, Json::Value &root, std::string &errors)
{
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(text.data(), text.data() + text.size(), &root, &errors);
    } catch (const std::exception &e) {
        // The reader throws instead of failing on some inputs (nesting beyond its stack limit).
        errors = e.what();
        return false;
    }
}
