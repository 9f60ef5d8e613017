// The application-control handle of app.h as both platform implementations keep it: an
// operation, the target's app id and ordered extra data. Each implementation's extern "C"
// functions check, log or record as it does, then call these; only sending a request differs.
#pragma once

#include "nimbos/app.h"

#include <string>
#include <utility>
#include <vector>

struct app_control_s {
    std::string operation = APP_CONTROL_OPERATION_DEFAULT;
    std::string appId;
    std::vector<std::pair<std::string, std::string>> extraData; // in the order added
};

namespace nimbos::common {

// Each returns an APP_CONTROL_ERROR_* code, as its app_control_* call of app.h does.
int CreateAppControl(app_control_h *handle);
int DestroyAppControl(app_control_h handle);
int SetOperation(app_control_h handle, const char *operation);
int GetOperation(app_control_h handle, char **operation);
// An app id is a bus name.
int SetAppId(app_control_h handle, const char *appId);
int AddExtraData(app_control_h handle, const char *key, const char *value);
int GetExtraData(app_control_h handle, const char *key, char **value);
int ForeachExtraData(app_control_h handle, app_control_extra_data_cb cb, void *userData);

} // namespace nimbos::common
