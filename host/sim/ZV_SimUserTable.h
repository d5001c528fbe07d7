// The simulator's users are the host's users.
#pragma once

#include "ZV_HostUserTable.h"

using ZV_SimUser = ZV_HostUser;
using ZV_SimUserTable = ZV_HostUserTable;
