// MapTag's deep copies and scriptval_maptags: named attributes of a script table into numeric tags,
// row by row of a static TagMapEntry table, then the nested tables at keys 1, 2, 3 ... in turn.

#include "values/tags/TagMap.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace orvexScript
{

// ---- MapTag -----------------------------------------------------------------------------------------

MapTag::MapTag(const MapTag &other) : m_Kind(other.m_Kind), m_Tag(other.m_Tag), m_Name(other.m_Name)
{
    SetChildren(other.m_Children, other.m_NumChildren);
}

MapTag &MapTag::operator=(const MapTag &other)
{
    if (this == &other) return *this;
    m_Kind = other.m_Kind;
    m_Tag = other.m_Tag;
    m_Name = other.m_Name;
    SetChildren(other.m_Children, other.m_NumChildren);
    return *this;
}

MapTag::~MapTag()
{
    delete[] m_Children;
}

void MapTag::SetChildren(const MapTag *children, int32_t count)
{
    // Copied before the old array goes, so a child of this record may be the source.
    MapTag *fresh = nullptr;
    if (children && count > 0)
    {
        fresh = new MapTag[count];
        for (int32_t i = 0; i < count; ++i)
            fresh[i] = children[i];
    }
    delete[] m_Children;
    m_Children = fresh;
    m_NumChildren = fresh ? count : 0;
}

// ---- scriptval_maptags --------------------------------------------------------------------------------

namespace
{
// A number as a string takes the value strtod reads from it (0 for none).
bool NumberOf(const ScriptVal &value, double &out)
{
    if (value.IsNumber())
        out = value.ToNumber();
    else if (value.IsString())
        out = std::strtod(value.ToString(""), nullptr);
    else
        return false;
    return true;
}

// Truncation to 32 bits; out of range and NaN give INT32_MIN, as ScriptVal::ToInteger does.
int32_t Truncate32(double d)
{
    if (!(d > -2147483649.0 && d < 2147483648.0)) return INT32_MIN;
    return static_cast<int32_t>(d);
}

// Tags whose data word is stored as given: only they can take a boolean's or an enumeration's number.
// The others would take the number for a pointer.
bool TakesPlainWord(Tag tag)
{
    const Tag type = TagType(tag);
    return type == TAG_INT || type == TAG_DOUBLE || type == TAG_PTR || TagList::Size(tag) == 0;
}

void MapPlain(const TagMapEntry &row, const ScriptVal &value, TagList &tags)
{
    double number = 0.0;
    switch (TagType(row.Tag))
    {
    case TAG_INT:
        if (NumberOf(value, number)) tags.Set(row.Tag, static_cast<int>(Truncate32(number)), true);
        break;
    case TAG_DOUBLE:
        if (NumberOf(value, number)) tags.Set(row.Tag, number, true);
        break;
    case TAG_STRING:
        if (value.IsString())
            tags.Set(row.Tag, value.ToString(""), true);
        else if (value.IsNumber())
        {
            char text[32];
            std::snprintf(text, sizeof(text), "%g", value.ToNumber());
            tags.Set(row.Tag, static_cast<const char *>(text), true);
        }
        break;
    case TAG_ID:
        tags.Set(row.Tag, KeID(value.ToString()), true);
        break;
    default:
        break;
    }
}

void MapBooleanRow(const TagMapEntry &row, const ScriptVal &value, TagList &tags)
{
    if (!TakesPlainWord(row.Tag)) return;
    const bool on = value.IsNumber() ? value.ToNumber() != 0.0 : value.ToBoolean(false);
    tags.Set(row.Tag, on, true);
}

void MapEnumRow(const TagMapEntry &row, const ScriptVal &value, TagList &tags)
{
    const TagEnum *members = static_cast<const TagEnum *>(row.Aux);
    if (!members || !members[0].Label || !value.IsString() || !TakesPlainWord(row.Tag)) return;
    const char *label = value.ToString("");
    for (const TagEnum *m = members + 1; m->Label; ++m) // the first pair names the enumeration
    {
        if (std::strcmp(m->Label, label) == 0)
        {
            tags.Set(row.Tag, static_cast<int>(m->Value), true);
            return;
        }
    }
}

void MapRow(const TagMapEntry &row, const ScriptVal &value, TagList &tags)
{
    switch (row.Kind)
    {
    case TMK_Plain:
        MapPlain(row, value, tags);
        break;
    case TMK_Boolean:
        MapBooleanRow(row, value, tags);
        break;
    case TMK_Enum:
        MapEnumRow(row, value, tags);
        break;
    default:
        break; // objects come through the Lua side
    }
}
} // namespace

int scriptval_maptags(const TagMapEntry *entries, bool toTags, const ScriptVal &table, TagList &tags)
{
    if (!toTags || !entries) return 0;
    for (const TagMapEntry *row = entries; row->Name; ++row)
    {
        const ScriptVal key(row->Name);
        if (table.Exists(key)) MapRow(*row, table.FindKeyConst(key), tags); // a present nil counts
    }
    for (int i = 1;; ++i)
    {
        const ScriptVal &group = table.FindKeyConst(i);
        if (!group.IsTable()) break;
        scriptval_maptags(entries, toTags, group, tags);
    }
    return 0;
}

} // namespace orvexScript
