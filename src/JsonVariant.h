// The service's JSON: text parsed the one way its files are read, and objects as D-Bus
// dictionaries and back, after one fixed mapping: an object is an a{sv}, a string an s, a
// boolean a b, an integer an x. The decision records travel this way, so that a client reads
// them with its D-Bus library alone.
#pragma once

#include <string>

#include <glib.h>
#include <json/json.h>

// A floating a{sv} of the object's members; members of other kinds (arrays, reals, null) are
// left out.
GVariant *JsonToVariant(const Json::Value &object);
// The members of an a{sv} that the mapping knows (any integer type is read as a number); others
// are left out.
Json::Value VariantToJson(GVariant *dictionary);

// JSON text into root; false with the reader's message (its first line the reason) in `errors`.
// Comments are not kept.
bool ParseJson(const std::string &text, Json::Value &root, std::string &errors);
