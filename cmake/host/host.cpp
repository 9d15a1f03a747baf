// A host of the installed library: builds a table, reads it back, and prints what it found.
#include <cstdio>

#include "values/model/ScriptVal.h"

int main()
{
    orvexScript::ScriptVal table(orvexScript::SV_Table, nullptr);
    table["name"] = "host";
    table["answer"] = 42;
    std::printf("%s %ld %d\n", table["name"].ToString(""), table["answer"].ToInteger(), table.NumKeys());
    return 0;
}
