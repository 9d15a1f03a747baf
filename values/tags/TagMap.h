// Tag maps: static descriptions of the tags a class knows, by name, and scriptval_maptags, which turns
// a script table of named attributes into numeric tags. MapTag is a tree-shaped description offered to
// hosts. The Lua side of tag maps (the generated TagMap tables) lives with the binding generator.
#pragma once

#include <cstdint>

#include "values/base/Export.h"
#include "values/model/ScriptVal.h"
#include "values/tags/TagList.h"

namespace orvexScript
{

// How a TagMapEntry's value is taken from a script table.
enum TagMapKind : int32_t
{
    TMK_Plain = 1,   // by the tag's type: number, string or identifier
    TMK_Boolean = 2, // 0 or 1
    TMK_Enum = 3,    // a label of the entry's TagEnum
    TMK_Object = 4,  // set from the Lua side only; Aux names the expected class
};

// One member of an enumeration. An array of them ends with a null Label; its first pair names the
// enumeration, the members follow.
struct TagEnum
{
    int32_t Value;
    const char *Label;
};

// One attribute of a class. An array of them ends with a row whose Name is null.
struct TagMapEntry
{
    const char *Name;     // the key in script tables
    orvexScript::Tag Tag; // the numeric tag
    int32_t Kind;         // a TagMapKind
    const void *Aux;      // TMK_Enum: const TagEnum *; TMK_Object: the expected class's name
    const char *Extra;    // text for the generated binding; not used here
};

// A description of one tag in tree form. The name pointer is kept, not copied; the child array is
// owned (allocated with new[]) and copied deeply with the record.
class ORVEX_API MapTag
{
public:
    ScriptValType m_Kind = SV_Nil;
    Tag m_Tag = 0;
    const char *m_Name = nullptr;
    int32_t m_NumChildren = 0;
    MapTag *m_Children = nullptr;

    MapTag() = default;
    MapTag(ScriptValType kind, const char *name, Tag tag) : m_Kind(kind), m_Tag(tag), m_Name(name) {}
    MapTag(const MapTag &other);
    MapTag &operator=(const MapTag &other);
    ~MapTag();

    // Replaces the children by deep copies of `count` records at `children`.
    void SetChildren(const MapTag *children, int32_t count);
};

class ORVEX_API MapBoolean : public MapTag
{
public:
    MapBoolean(const char *name, Tag tag) : MapTag(SV_Boolean, name, tag) {}
};

class ORVEX_API MapNumber : public MapTag
{
public:
    MapNumber(const char *name, Tag tag) : MapTag(SV_Number, name, tag) {}
};

class ORVEX_API MapString : public MapTag
{
public:
    MapString(const char *name, Tag tag) : MapTag(SV_String, name, tag) {}
};

// With `toTags` true, sets into `tags` (SetData, adding) every attribute of `table` that a row of
// `entries` names and whose value fits the row; values that don't fit are left out silently. Then
// the tables at keys 1, 2, 3 ... (up to the first key that isn't a table) are mapped the same way
// in turn, so later groups override earlier ones. With `toTags` false nothing happens: the other
// direction goes through the generated Lua code. The result is always 0.
ORVEX_API int scriptval_maptags(const TagMapEntry *entries, bool toTags, const ScriptVal &table,
                                TagList &tags);

} // namespace orvexScript
