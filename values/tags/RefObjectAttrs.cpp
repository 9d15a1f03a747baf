// RefObject's attribute operations: the variadic packers and the typed readers, resting on TagList and
// the virtual SetAttrsTagList, CopyAttr and DoTagList. A reader calls CopyAttr only when the tag's data
// width equals that of its own kind, so a two-word tag never reaches a one-word out value.

#include <cstdarg>
#include <cstring>

#include "values/model/KeID.h"
#include "values/tags/TagList.h"

namespace orvexScript
{

namespace
{
bool SameWidth(Tag tag, Tag representative)
{
    return TagList::Size(tag) == TagList::Size(representative);
}
} // namespace

bool RefObject::SetAttrs(Tag first, ...)
{
    Tag buffer[TagList::MaxVarArgWords];
    va_list args;
    va_start(args, first);
    TagList::GatherVarArgs(first, args, buffer, TagList::MaxVarArgWords);
    va_end(args);
    TagList tags(buffer, false);
    return SetAttrsTagList(tags);
}

bool RefObject::Do(unsigned long cmd, Tag first, ...)
{
    Tag buffer[TagList::MaxVarArgWords];
    va_list args;
    va_start(args, first);
    TagList::GatherVarArgs(first, args, buffer, TagList::MaxVarArgWords);
    va_end(args);
    TagList tags(buffer, false);
    return DoTagList(cmd, tags);
}

// The out values are two words wide, whatever the read's kind: a CopyAttr that writes a tag's full data
// word into a 32-bit or bool read stays inside them. They start as the default, which a CopyAttr that
// finds no such attribute leaves in place, so its result needs no check.

unsigned long RefObject::GetAttr(Tag tag, unsigned long def) const
{
    uint64_t value[2] = {def, 0};
    if (SameWidth(tag, TAG_INT)) (void)CopyAttr(tag, value);
    return static_cast<uint32_t>(value[0]);
}

double RefObject::GetAttrD(Tag tag, double def) const
{
    uint64_t value[2] = {0, 0};
    std::memcpy(value, &def, sizeof(def));
    if (SameWidth(tag, TAG_DOUBLE)) (void)CopyAttr(tag, value);
    double result;
    std::memcpy(&result, value, sizeof(result));
    return result;
}

void *RefObject::GetAttrPtr(Tag tag, void *def) const
{
    uint64_t value[2] = {reinterpret_cast<uint64_t>(def), 0};
    if (SameWidth(tag, TAG_PTR)) (void)CopyAttr(tag, value);
    return reinterpret_cast<void *>(value[0]);
}

bool RefObject::GetAttrB(Tag tag, bool def) const
{
    uint64_t value[2] = {def ? 1u : 0u, 0};
    if (SameWidth(tag, TAG_INT)) (void)CopyAttr(tag, value);
    return static_cast<uint32_t>(value[0]) != 0;
}

KeID RefObject::GetAttrID(Tag tag) const
{
    return GetAttrID(tag, NOID);
}

KeID RefObject::GetAttrID(Tag tag, const KeID &def) const
{
    KeID value(def);
    // Only an identifier tag is copied into a KeID: any other one-word value would be taken as a
    // counted text pointer.
    if (SameWidth(tag, TAG_ID) && TagType(tag) == TAG_ID) (void)CopyAttr(tag, &value);
    return value;
}

} // namespace orvexScript
