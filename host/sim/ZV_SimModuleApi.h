// The simulator loads the module as every host does.
#pragma once

#include "ZV_ModuleApi.h"

using ZV_SimModuleApi = ZV_ModuleApi;
