// The script server: one per machine, started on demand as `orvexScript -s [-p PORT]`. It listens on
// g_ScriptServerPort for TCP and answers pings on the same UDP port; applications register with it
// (AddHost), clients ask it for an application (ConnectHost) and get their socket handed over to that
// application. It carries no script traffic, and ends by itself when nobody needs it.
#pragma once

#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

// Idle passes (about 0.1 s each) a server waits for its first connection; 0xFFFFFFFF: for ever.
ORVEX_API extern uint32_t g_ScriptServerExitDelay;

// The whole life of the server process; returns its exit status when it has ended (0 after a normal
// end, 1 if it could not bind, as a second server on a machine does). The arguments are not read.
ORVEX_API int ScriptServerMain(void *argument, void *instance);

} // namespace orvexScript
