// Stand-in for the data-text interpreter until it is built: every run fails, so readers that would
// hand a text to it report that it is missing.
#include "datalua/DataLua.h"

#include "values/model/ScriptVal.h"

namespace orvexScript::datalua
{

static RunLimits s_Limits;

void SetRunLimits(const RunLimits &limits)
{
    s_Limits = limits;
}

RunLimits GetRunLimits()
{
    return s_Limits;
}

bool RunText(const char *const *, const size_t *, int, const char *, ScriptVal &out, std::string &error,
             std::string &resultText, void (*)(void *), void *)
{
    out.CleanUp();
    error = "interpreter not available";
    resultText.clear();
    return false;
}

} // namespace orvexScript::datalua
