// The application-control handle of the fake platform, shared by the handle calls and the
// service loop that hands launch requests to the service.
#pragma once

#include "nimbos/app.h"
#include "nimbos/fake.h"

#include <string>

struct app_control_s {
    std::string operation = APP_CONTROL_OPERATION_DEFAULT;
    std::string appId;
    nimbos::fake::ExtraData extraData; // in the order added
};
