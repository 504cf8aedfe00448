// Everything of the host framework that a plug-in may use.
#pragma once

#include "ac/ac_exception.h"
#include "ac/config.h"
#include "ac/log.h"
#include "ac/message.h"
#include "ac/message_enqueuer.h"
#include "ac/plugin.h"
#include "ac/util.h"
