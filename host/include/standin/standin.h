// Control side of the stand-in terminal host: what tests and the terminal
// program use to set up, drive and observe the host that a plug-in runs in.
// Plug-ins never include it. Each concern has a header of its own; this one
// brings them all, with the host framework's interface.
#pragma once

#include "ac/ac.h"
#include "standin/bus.h"
#include "standin/clock.h"
#include "standin/config.h"
#include "standin/database.h"
#include "standin/logs.h"
#include "standin/plugin_host.h"
#include "standin/services.h"
