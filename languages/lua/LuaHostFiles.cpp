// The file and directory functions of the library table `orvex`: readdir, createdir, removedir,
// fileexists, direxists, fullpath, getcurrentdir, setcurrentdir, tounc; and ConvertToUNCPath.
// Paths take "/" and "\" alike; what the functions give back uses "/".
#include <cstring>
#include <string>
#include <vector>

#include "languages/lua/HostSystem.h"
#include "languages/lua/LuaGuard.h"
#include "languages/lua/LuaHostInternal.h"
#include "languages/lua/LuaHostLib.h"

namespace orvexScript
{

namespace
{

using HostSystem::kMaxPath;

// The size of getcurrentdir's buffer, terminator included.
constexpr size_t kCurrentDirSize = 1000;

bool IsSeparator(char c)
{
    return c == '/' || c == '\\';
}

// The string argument at `index` (a number is read as text), or null.
const char *PathArgument(lua_State *L, int index)
{
    return lua_isstring(L, index) ? lua_tostring(L, index) : nullptr;
}

void SetField(lua_State *L, const char *key, double value)
{
    lua_pushnumber(L, value);
    lua_setfield(L, -2, key);
}

void SetField(lua_State *L, const char *key, bool value)
{
    lua_pushboolean(L, value);
    lua_setfield(L, -2, key);
}

void PushEntry(lua_State *L, const HostSystem::DirEntry &entry)
{
    lua_createtable(L, 0, 10);
    lua_pushlstring(L, entry.name.data(), entry.name.size());
    lua_setfield(L, -2, "Name");
    SetField(L, "Size", static_cast<double>(entry.size));
    SetField(L, "IsArchive", (entry.attributes & HostSystem::EA_Archive) != 0);
    SetField(L, "IsHidden", (entry.attributes & HostSystem::EA_Hidden) != 0);
    SetField(L, "IsReadOnly", (entry.attributes & HostSystem::EA_ReadOnly) != 0);
    SetField(L, "IsSystem", (entry.attributes & HostSystem::EA_System) != 0);
    SetField(L, "IsDir", (entry.attributes & HostSystem::EA_Dir) != 0);
    SetField(L, "CreateTime", entry.createTime == -1 ? entry.writeTime : entry.createTime);
    SetField(L, "AccessTime", entry.accessTime == -1 ? entry.writeTime : entry.accessTime);
    SetField(L, "WriteTime", entry.writeTime);
}

} // namespace

bool FullPathForm(const char *path, std::string &out)
{
    out.clear();
    if (!path) return false;
    std::string whole;
    if (!IsSeparator(path[0]))
    {
        char current[4096];
        if (!HostSystem::CurrentFolder(current, sizeof(current))) return false;
        whole = current;
        whole += '/';
    }
    whole += path;
    if (whole.size() >= 4 * kMaxPath) return false; // far too long whatever its dots do

    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= whole.size())
    {
        size_t end = start;
        while (end < whole.size() && !IsSeparator(whole[end]))
            ++end;
        const std::string part = whole.substr(start, end - start);
        if (part == "..")
        {
            if (!parts.empty()) parts.pop_back();
        }
        else if (!part.empty() && part != ".")
            parts.push_back(part);
        start = end + 1;
    }
    for (const std::string &part : parts)
        out += "/" + part;
    if (out.empty() || IsSeparator(whole.back())) out += '/';
    if (out.size() >= kMaxPath)
    {
        out.clear();
        return false;
    }
    return true;
}

bool ConvertToUNCPath(const char *path, char *out, TagList *)
{
    if (!out) return false;
    out[0] = 0;
    if (!path || !IsSeparator(path[0])) return false;
    const size_t length = std::strlen(path);
    if (length >= kUNCPathSize) return false;
    std::memcpy(out, path, length + 1);
    return true;
}

namespace
{

ORVEX_LUA_FUNCTION(orvex_readdir)
{
    lua_newtable(L);
    const char *pattern = PathArgument(L, 1);
    if (!pattern || std::strlen(pattern) >= kMaxPath) return 1;

    const std::string text(pattern);
    const size_t cut = text.find_last_of("/\\");
    std::string folder, name = text;
    if (cut != std::string::npos)
    {
        folder = cut == 0 ? text.substr(0, 1) : text.substr(0, cut);
        name = text.substr(cut + 1);
    }
    std::vector<HostSystem::DirEntry> entries;
    if (!name.empty() && HostSystem::ListFolder(folder, name, entries))
    {
        int n = 0;
        for (const HostSystem::DirEntry &entry : entries)
        {
            PushEntry(L, entry);
            lua_rawseti(L, -2, ++n);
        }
    }

    std::string full;
    if (FullPathForm(pattern, full))
    {
        const size_t last = full.find_last_of('/');
        lua_pushstring(L, full.substr(last + 1).c_str());
        lua_setfield(L, -2, "Pattern");
        lua_pushstring(L, full.substr(0, last + 1).c_str());
        lua_setfield(L, -2, "Parent");
    }
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_createdir)
{
    std::string full;
    const char *path = PathArgument(L, 1);
    if (!path || !FullPathForm(path, full))
    {
        lua_pushboolean(L, false);
        return 1;
    }
    if (full.size() > 1 && full.back() == '/') full.pop_back();
    // Every ancestor in turn, whether it exists or not; only the last creation counts.
    for (size_t i = 1; i < full.size(); ++i)
        if (full[i] == '/') (void)HostSystem::MakeFolder(full.substr(0, i).c_str());
    lua_pushboolean(L, HostSystem::MakeFolder(full.c_str()));
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_removedir)
{
    const char *path = PathArgument(L, 1);
    lua_pushboolean(L, path && HostSystem::RemoveFolder(path));
    return 1;
}

// A missing argument, or one that is neither string nor number, comes back as it is (nil if missing).
ORVEX_LUA_FUNCTION(orvex_fileexists)
{
    const char *path = PathArgument(L, 1);
    if (!path)
    {
        lua_settop(L, 1);
        return 1;
    }
    lua_pushboolean(L, HostSystem::IsRegularFile(path));
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_direxists)
{
    const char *path = lua_type(L, 1) == LUA_TSTRING ? lua_tostring(L, 1) : nullptr;
    const size_t length = path ? std::strlen(path) : 0;
    if (!path || length >= kMaxPath)
    {
        lua_pushboolean(L, false);
        return 1;
    }
    char copy[kMaxPath];
    std::memcpy(copy, path, length + 1);
    // One trailing separator goes, unless it is all there is or follows "\" or ":" (a drive's root).
    if (length > 1 && IsSeparator(copy[length - 1]) && copy[length - 2] != '\\' && copy[length - 2] != ':')
        copy[length - 1] = 0;
    lua_pushboolean(L, HostSystem::IsFolder(copy));
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_fullpath)
{
    std::string full;
    const char *path = PathArgument(L, 1);
    if (path && FullPathForm(path, full))
        lua_pushlstring(L, full.data(), full.size());
    else
        lua_pushnil(L);
    return 1;
}

// The current folder with a trailing "/"; nil if that doesn't fit the buffer.
ORVEX_LUA_FUNCTION(orvex_getcurrentdir)
{
    char current[kCurrentDirSize];
    if (!HostSystem::CurrentFolder(current, sizeof(current)))
    {
        lua_pushnil(L);
        return 1;
    }
    size_t length = std::strlen(current);
    if (length == 0 || !IsSeparator(current[length - 1]))
    {
        if (length + 1 >= sizeof(current))
        {
            lua_pushnil(L);
            return 1;
        }
        current[length++] = '/';
        current[length] = 0;
    }
    lua_pushlstring(L, current, length);
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_setcurrentdir)
{
    const char *path = PathArgument(L, 1);
    lua_pushboolean(L, path && HostSystem::ChangeFolder(path));
    return 1;
}

ORVEX_LUA_FUNCTION(orvex_tounc)
{
    const char *path = PathArgument(L, 1);
    char out[kUNCPathSize];
    if (!path || !ConvertToUNCPath(path, out, nullptr)) return 0;
    lua_pushstring(L, out);
    return 1;
}

} // namespace

void AddFileFunctions(std::vector<luaL_Reg> &functions)
{
    functions.insert(functions.end(), {
                                          {"readdir", orvex_readdir},
                                          {"createdir", orvex_createdir},
                                          {"removedir", orvex_removedir},
                                          {"fileexists", orvex_fileexists},
                                          {"direxists", orvex_direxists},
                                          {"fullpath", orvex_fullpath},
                                          {"getcurrentdir", orvex_getcurrentdir},
                                          {"setcurrentdir", orvex_setcurrentdir},
                                          {"tounc", orvex_tounc},
                                      });
}

} // namespace orvexScript
