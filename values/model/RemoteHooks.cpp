// The registered remote-layer hooks. Until the remote library sets them, every hook is null and the
// value layer treats remote objects as inert.
#include "values/model/RemoteHooks.h"

namespace orvexScript
{

namespace
{
RemoteHooks s_Hooks;
}

void SetRemoteHooks(const RemoteHooks &hooks)
{
    s_Hooks = hooks;
}

const RemoteHooks &GetRemoteHooks()
{
    return s_Hooks;
}

} // namespace orvexScript
