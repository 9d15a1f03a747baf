// ScriptSymbolTags: a member declared with tags, whose help texts are built from them. Each
// SYMS_Prototype opens one prototype line ("ret Class:Name(type arg [, type arg])" for a function,
// "type = Class.Name" / "Class.Name = type" for a variable), followed by its description; the
// SYMS_LongHelp paragraphs come last.

#include <cstdarg>
#include <cstdio>
#include <string>

#include "objects/ScriptInfo.h"

namespace orvexScript
{

namespace
{
struct Prototype
{
    const TagList &tags;
    uint32_t kind;
    const char *className;
    const char *name;
    std::string &out;
};

std::string Format(const char *format, ...) __attribute__((format(printf, 1, 2)));

std::string Format(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, args);
    va_end(args);
    return text;
}

// The head of the line, from the type tag right behind the opener if there is one. Gives the tag
// where the argument walk starts.
Tag *WriteHead(const Prototype &p, Tag *opener)
{
    Tag *next = p.tags.Next(opener);
    const bool typed = next && *next == SYMS_ReturnType;
    const char *type = typed ? p.tags.GetSafeString(next) : nullptr;
    if (p.kind == SST_Function)
        p.out +=
            typed ? Format("%s %s:%s(", type, p.className, p.name) : Format("%s:%s(", p.className, p.name);
    else if (typed)
        p.out += Format("%s = %s.%s", type, p.className, p.name);
    return typed ? p.tags.Next(next) : next;
}

// Writes the arguments from `at` on; gives the first tag that is not part of the prototype.
Tag *WriteArguments(const Prototype &p, Tag *at)
{
    bool optional = false;
    int opened = 0;
    int count = 0;
    for (; at; at = p.tags.Next(at))
    {
        if (*at == SYMB_Optional)
        {
            optional = p.tags.GetBool(at);
            continue;
        }
        if (*at == SYMS_ReturnDesc) continue;
        if (*at != SYMS_ArgType) break;
        const char *type = p.tags.GetSafeString(at);
        Tag *nameTag = p.tags.Next(at);
        const char *argName = nullptr;
        if (nameTag && *nameTag == SYMS_ArgName)
        {
            argName = p.tags.GetSafeString(nameTag);
            at = nameTag;
        }
        if (p.kind == SST_Function)
        {
            if (optional)
            {
                p.out += " [";
                ++opened;
            }
            if (++count > 1) p.out += ", ";
            p.out += argName ? Format("%s %s", type, argName) : std::string(type);
        }
        else
        {
            p.out += Format("%s.%s = %s", p.className, p.name, type);
        }
    }
    p.out.append(static_cast<size_t>(opened), ']');
    p.out += p.kind == SST_Function ? ")\n" : "\n";
    return at;
}
} // namespace

KeID ScriptSymbolTags::BuildHelp(const TagList &tags, uint32_t kind, const char *className, const char *name)
{
    std::string help;
    const char *cls = className ? className : "";
    const char *member = name ? name : "";
    Prototype p{tags, kind, cls, member, help};
    for (Tag *at = tags.Find(SYMS_Prototype); at; at = tags.FindNext(SYMS_Prototype, at))
    {
        if (kind == SST_Function || kind == SST_Variable) WriteArguments(p, WriteHead(p, at));
        const char *description = tags.GetSafeString(at);
        if (*description) help += Format("  %s\n\n", description);
    }
    for (Tag *at = tags.First(); at; at = tags.Next(at))
    {
        if (*at != SYMS_LongHelp && *at != SYMS_LongHelp2) continue;
        const char *paragraph = tags.GetSafeString(at);
        if (*paragraph) help += Format("%s\n\n", paragraph);
    }
    return KeID(help.c_str());
}

ScriptSymbolTags::ScriptSymbolTags(unsigned long version, const char *name, unsigned long flags,
                                   ScriptFunc function, ScriptInfo &owner, Tag tag, ...)
    : ScriptSymbol(version, name, flags | SSF_Tags, function, owner), m_Tags(nullptr)
{
    Tag buffer[TagList::MaxVarArgWords];
    va_list args;
    va_start(args, tag);
    TagList::GatherVarArgs(tag, args, buffer, TagList::MaxVarArgWords);
    va_end(args);
    m_Tags = new TagList(buffer, true);
    m_ShortHelp = KeID(m_Tags->GetSafeString(SYMS_ShortHelp, ""));
    m_LongHelp = BuildHelp(*m_Tags, Number(), owner.m_Name, name);
}

ScriptSymbolTags::~ScriptSymbolTags()
{
    delete m_Tags;
}

} // namespace orvexScript
