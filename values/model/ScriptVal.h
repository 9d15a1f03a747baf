// ScriptVal: the variant value that crosses every language, process and object boundary.
// One word of kind (low 8 bits) and flags, then a payload union. Strings are shared counted blocks,
// tables are ordered lists of TableEntry copied deep on assignment, objects are counted.
// Sections: kinds and flags, the payload union, the class (construction, conversion, tables).
#pragma once

#include <cstdint>

#include "values/base/Export.h"

namespace orvexScript
{

class TableEntry;
class TableIndex;
class KeID;
class MemBlock;
class RemoteObject;
class RemoteApp;
class ScriptObject;
class ScriptSymbol;
class ScriptArgs;
class TagList;

// The kinds. Their numbers travel in packets and in the generated binding.
enum ScriptValType : uint32_t
{
    SV_Nil = 0,
    SV_Number = 1,
    SV_String = 2,
    SV_Boolean = 3,
    SV_Table = 4,
    SV_Function = 5,
    SV_RemoteObject = 6,
    SV_LocalObject = 7,
    SV_Code = 8,
    SV_MemBlock = 9,
    SV_Args = 10,
    SV_Ref = 11,        // not storable: setting it gives nil
    SV_StringCopy = 12, // a request only: stores SV_String
};

constexpr uint32_t SV_TypeMask = 0xFFu;
constexpr uint32_t SVF_OneLine = 0x00000100u;
constexpr uint32_t SVF_Const = 0x00000200u;
constexpr uint32_t SVF_Single = 0x00100000u;
constexpr uint32_t SVF_Ordered = 0x00200000u;

// A kind with flag bits, as Set takes it: Set(SVType(SV_Table, SVF_OneLine), ...).
constexpr ScriptValType SVType(uint32_t kind, uint32_t flags)
{
    return static_cast<ScriptValType>((kind & SV_TypeMask) | (flags & ~SV_TypeMask));
}

// Error numbers of replies; SetError writes them with their texts.
enum ScriptError : int
{
    SE_None = 0,
    SE_Unknown = 1,
    SE_InvalidArguments = 2,
    SE_Unsupported = 3,
    SE_NotLoggedIn = 4,
    SE_UnknownPacket = 5,
    SE_InvalidObject = 6,
    SE_NotInitialized = 7,
    SE_InvalidIndex = 8,
    SE_UnknownSymbol = 9,
    SE_InvalidRemoteObject = 10,
};

// The message of an error number, or null for SE_None and numbers out of range.
ORVEX_API const char *ScriptErrorText(int code);

// The payload. Its layout is shared with the packet form and the generated binding.
union ScriptValue
{
    double m_Number;
    struct
    {
        char *m_String; // the block's marker byte
        uint32_t m_Hash;
        char *m_StringCopy; // the owned block, or null
    } m_String;
    bool m_Boolean;
    RemoteObject *m_RemoteObject;
    ScriptObject *m_LocalObject;
    uint64_t m_Function;
    struct
    {
        void *m_Ptr;
        uint32_t m_Size;
    } m_MemBlock;
    struct
    {
        void *m_Ptr;
        uint32_t m_Size;
        uint32_t m_Args;
    } m_Code;
    struct
    {
        TableEntry *m_Table;
        TableEntry *m_Last;
        char *m_Constructor;
        char *m_ConstructorCopy;
    } m_Table;
    struct
    {
        TableEntry *m_Table;
        RemoteApp *m_App;
        uint32_t m_Context;
        uint8_t m_NumReturns;
        uint8_t m_pad[3];
    } m_Args;
};

class ORVEX_API ScriptVal
{
public:
    union
    {
        uint32_t m_Type;
        uint32_t m_Flags;
    };

private:
    // The handle of a large table's look-up index (0: none). It sits in the padding between the word
    // and the 8-aligned payload, so no reader of the word or the payload sees it. Only the table's
    // own operations touch it; a copy of the payload alone carries no index.
    mutable uint32_t m_Index = 0;

public:
    ScriptValue m_Value;

    // ---- construction -------------------------------------------------------------------------
    constexpr ScriptVal() noexcept : m_Type(SV_Nil), m_Value{} {}
    ScriptVal(float v);
    ScriptVal(double v);
    ScriptVal(int v) : ScriptVal(static_cast<double>(v)) {}
    ScriptVal(unsigned int v) : ScriptVal(static_cast<double>(v)) {}
    ScriptVal(long v) : ScriptVal(static_cast<double>(v)) {}
    ScriptVal(unsigned long v) : ScriptVal(static_cast<double>(v)) {}
    ScriptVal(long long v) : ScriptVal(static_cast<double>(v)) {}
    ScriptVal(unsigned long long v) : ScriptVal(static_cast<double>(v)) {}
    ScriptVal(bool v);
    ScriptVal(const char *text);
    ScriptVal(const char *text, int len);
    ScriptVal(const KeID &id);
    ScriptVal(const MemBlock &block);
    ScriptVal(const void *code, unsigned long size, unsigned long args);
    ScriptVal(ScriptObject *object);
    ScriptVal(ScriptValType typeWord, const void *data);
    ScriptVal(const ScriptVal &other);
    // Takes the payload of a non-constant value (args are copied); `other` is left nil.
    ScriptVal(ScriptVal &&other) noexcept;
    virtual ~ScriptVal();

    // ---- assignment (every form does nothing on a value marked SVF_Const) ----------------------
    ScriptVal &operator=(const ScriptVal &other);
    ScriptVal &operator=(ScriptVal &&other) noexcept;
    ScriptVal &operator=(bool v);
    ScriptVal &operator=(int v) { return *this = static_cast<double>(v); }
    ScriptVal &operator=(unsigned int v) { return *this = static_cast<double>(v); }
    ScriptVal &operator=(long v) { return *this = static_cast<double>(v); }
    ScriptVal &operator=(unsigned long v) { return *this = static_cast<double>(v); }
    ScriptVal &operator=(long long v) { return *this = static_cast<double>(v); }
    ScriptVal &operator=(unsigned long long v) { return *this = static_cast<double>(v); }
    ScriptVal &operator=(float v);
    ScriptVal &operator=(double v);
    ScriptVal &operator=(const char *text);
    ScriptVal &operator=(const KeID &id);
    ScriptVal &operator=(const MemBlock &block);
    ScriptVal &operator=(ScriptObject *object);
    // The empty value of a kind: Set(kind, null).
    ScriptVal &operator=(ScriptValType kind);

    // The general store: `typeWord` is kind plus flags, `data` a payload in the layout of m_Value.
    ScriptVal &Set(ScriptValType typeWord, const void *data);
    // A string of exactly `len` bytes (kinds SV_String / SV_StringCopy only); never shares a block.
    ScriptVal &Set(ScriptValType type, const char **text, int len);
    // Releases the payload and makes this nil with no flags, constant or not.
    void CleanUp();

    // ---- kinds ----------------------------------------------------------------------------------
    ScriptValType Type() const { return static_cast<ScriptValType>(m_Type & SV_TypeMask); }
    bool IsNil() const { return Type() == SV_Nil; }
    bool IsNumber() const { return Type() == SV_Number; }
    bool IsString() const { return Type() == SV_String; }
    bool IsBoolean() const { return Type() == SV_Boolean; }
    bool IsTable() const { return Type() == SV_Table; }
    bool IsFunction() const { return Type() == SV_Function; }
    bool IsRemoteObject() const { return Type() == SV_RemoteObject; }
    bool IsCode() const { return Type() == SV_Code; }
    bool IsMemBlock() const { return Type() == SV_MemBlock; }
    bool IsArgs() const { return Type() == SV_Args; }
    bool IsLocalObject(bool strict = true) const;
    bool operator==(ScriptValType kind) const { return Type() == (kind & SV_TypeMask); }
    bool operator!=(ScriptValType kind) const { return !(*this == kind); }

    // ---- conversions (safe on a null receiver; no coercion between kinds) ----------------------
    double ToNumber(double def = 0.0) const;
    long ToInteger(long def = 0) const;
    const char *ToString(const char *def = nullptr) const;
    bool ToBoolean(bool def = false) const;
    RemoteObject *ToRemoteObject(RemoteObject *def = nullptr) const;
    uint64_t ToFunction(uint64_t def = 0) const;
    ScriptObject *ToLocalObject(ScriptObject *def = nullptr) const;
    MemBlock ToMemBlock() const;
    void *ToCodePtr() const;
    unsigned long ToCodeLen() const;
    unsigned long ToCodeArgs() const;
    bool Get(ScriptValType kind, void *out) const;
    const void *GetData() const { return &m_Value; }
    ScriptValue &GetValue() { return m_Value; }
    const ScriptValue &GetValue() const { return m_Value; }

    // ---- flags (never the kind byte) -----------------------------------------------------------
    uint32_t GetFlags(uint32_t mask) const { return m_Flags & mask & ~SV_TypeMask; }
    void SetFlags(uint32_t mask) { m_Flags |= mask & ~SV_TypeMask; }
    void ClearFlags(uint32_t mask) { m_Flags &= ~(mask & ~SV_TypeMask); }

    RemoteApp *GetApp() const;
    void SetApp(RemoteApp *app);

    // ---- comparison and merging ----------------------------------------------------------------
    bool operator==(const ScriptVal &other) const;
    bool operator!=(const ScriptVal &other) const { return !(*this == other); }
    bool operator==(double v) const;
    bool operator!=(double v) const { return !(*this == v); }
    bool operator==(const char *text) const;
    bool operator!=(const char *text) const { return !(*this == text); }
    bool operator==(const KeID &id) const;
    bool operator!=(const KeID &id) const { return !(*this == id); }
    ScriptVal &operator+=(const ScriptVal &other);
    ScriptVal &operator-=(const ScriptVal &other);

    void SetError(ScriptError code, const char *message = nullptr);

    // ---- results of a call (on SV_Args and SV_Table; other kinds store nothing) -----------------
    // Each stores one result at key -n, n being the new count of results (at most 255).
    void Return(const ScriptVal &value);
    void ReturnNil();
    void ReturnNumber(double value);
    void ReturnString(const char *text);
    void ReturnBoolean(bool value);
    void ReturnMemBlock(const MemBlock &block);
    void ReturnCode(const void *code, unsigned long size, unsigned long argc);
    // A function value: SV_Function holding the symbol's address; a null symbol gives nil.
    void ReturnFunction(ScriptSymbol *symbol);
    void ReturnObject(ScriptObject *object);

    // Prints the value to standard output, for debugging.
    void Dump(int indent = 0, bool newline = true) const;

    // ---- text form (a Lua expression that rebuilds the value) ----------------------------------
    // The exact number of bytes ToText writes at `depth`, without the terminator. Depth 0 is a
    // top-level value and sets the C locale for the whole process first; a negative depth drops the
    // indentation of that level.
    unsigned long ToTextLen(int depth) const;
    // Writes the text and a NUL into `buffer` (at least ToTextLen(depth) + 1 bytes, unchecked) and
    // gives the address of the NUL.
    char *ToText(char *buffer, int depth) const;
    // Reads a text written by ToText, or any chunk that gives one value: `prologue` goes in front
    // (null: "return "). This value is nil on failure. The chunk name is the content of `errorBuffer`
    // if not empty, else "FromText"; afterwards the buffer (if errorSize > 0) holds the message of a
    // failure, or the result as text when it is a string or number, else "". With `freeText` the
    // text is a malloc'd block that the reader frees.
    bool FromText(const char *text, const char *prologue, char *errorBuffer, int errorSize);
    bool FromText(const char *text, const char *prologue, char *errorBuffer, int errorSize, bool freeText);
    // Runs `text` as statements on the script Lua and reads the global `name` (under 256 bytes).
    bool FromTextByName(const char *text, const char *name, char *errorBuffer, int errorSize, bool freeText);

    // ---- tables: look-ups ----------------------------------------------------------------------
    ScriptVal &FindKey(const ScriptVal &key);
    ScriptVal &FindKey(double key);
    ScriptVal &FindKey(float key) { return FindKey(static_cast<double>(key)); }
    ScriptVal &FindKey(int key) { return FindKey(static_cast<double>(key)); }
    ScriptVal &FindKey(unsigned int key) { return FindKey(static_cast<double>(key)); }
    ScriptVal &FindKey(long key) { return FindKey(static_cast<double>(key)); }
    ScriptVal &FindKey(unsigned long key) { return FindKey(static_cast<double>(key)); }
    ScriptVal &FindKey(long long key) { return FindKey(static_cast<double>(key)); }
    ScriptVal &FindKey(unsigned long long key) { return FindKey(static_cast<double>(key)); }
    ScriptVal &FindKey(const char *key);
    ScriptVal &FindKey(const char *key, int len);
    ScriptVal &FindKey(const KeID &key);

    const ScriptVal &FindKeyConst(const ScriptVal &key) const;
    const ScriptVal &FindKeyConst(double key) const;
    const ScriptVal &FindKeyConst(float key) const { return FindKeyConst(static_cast<double>(key)); }
    const ScriptVal &FindKeyConst(int key) const { return FindKeyConst(static_cast<double>(key)); }
    const ScriptVal &FindKeyConst(unsigned int key) const { return FindKeyConst(static_cast<double>(key)); }
    const ScriptVal &FindKeyConst(long key) const { return FindKeyConst(static_cast<double>(key)); }
    const ScriptVal &FindKeyConst(unsigned long key) const { return FindKeyConst(static_cast<double>(key)); }
    const ScriptVal &FindKeyConst(long long key) const { return FindKeyConst(static_cast<double>(key)); }
    const ScriptVal &FindKeyConst(unsigned long long key) const
    {
        return FindKeyConst(static_cast<double>(key));
    }
    const ScriptVal &FindKeyConst(const char *key) const;
    const ScriptVal &FindKeyConst(const char *key, int len) const;
    const ScriptVal &FindKeyConst(const KeID &key) const;

    template <typename K> ScriptVal &operator[](const K &key) { return FindKey(key); }
    template <typename K> const ScriptVal &operator[](const K &key) const { return FindKeyConst(key); }
    ScriptVal &operator[](const char *key) { return FindKey(key); }
    const ScriptVal &operator[](const char *key) const { return FindKeyConst(key); }

    ScriptVal *FindKeyNoCase(const char *key);
    ScriptVal *FindKeyNoCase(const char *key, int len);
    ScriptVal *FindKeyNoCase(const ScriptVal &key);
    const ScriptVal *FindKeyNoCaseConst(const char *key) const;
    const ScriptVal *FindKeyNoCaseConst(const char *key, int len) const;
    const ScriptVal *FindKeyNoCaseConst(const ScriptVal &key) const;

    // Dotted paths "a.b.1": number segments are number keys.
    ScriptVal *FindKeyNest(const char *path, bool create);
    ScriptVal *FindKeyNest(const KeID &path, bool create);
    ScriptVal *FindKeyNest(const ScriptVal &path, bool create);
    const ScriptVal *FindKeyNestConst(const char *path) const;
    const ScriptVal *FindKeyNestConst(const KeID &path) const;
    const ScriptVal *FindKeyNestConst(const ScriptVal &path) const;
    ScriptVal *FindKeyNoCaseNest(const char *path, bool create);
    ScriptVal *FindKeyNoCaseNest(const KeID &path, bool create);
    ScriptVal *FindKeyNoCaseNest(const ScriptVal &path, bool create);
    const ScriptVal *FindKeyNoCaseNestConst(const char *path) const;
    const ScriptVal *FindKeyNoCaseNestConst(const KeID &path) const;
    const ScriptVal *FindKeyNoCaseNestConst(const ScriptVal &path) const;

    // Appends with no search on a table with a string key (the caller promises the key is new).
    ScriptVal &AddKey(const ScriptVal &key);
    bool Exists(const ScriptVal &key) const;
    int NumKeys() const;
    bool IsEmpty() const;
    bool NextKey(TableEntry *&cursor) const;

    // The member call on an object value (a proxy or a local object): the first result, or nil when
    // there is no such member or the value is no object. CallMember puts its arguments at keys 1..n
    // (n at most 8; defined in ScriptArgs.h).
    ScriptVal CallMemberA(const char *name, ScriptArgs &args) const;
    template <typename... A> ScriptVal CallMember(const char *name, const A &...args) const;

    ScriptVal GetKey(const char *key);
    ScriptVal GetKey(double key);
    void SetKey(const char *key, const ScriptVal &value);
    void SetKey(double key, const ScriptVal &value);

    const char *GetConstructor() const;
    void SetConstructor(const char *name);
    void SetConstructor(const KeID &name);
    // Hands a finished list to this table, which owns it from then on.
    void SetTable(TableEntry *head);

    // The head of the entry list of a table or args value, or null.
    TableEntry *FirstEntry() const;
    // Lets go of the entry list without freeing it: the caller owns the entries from then on.
    ORVEX_INTERNAL void DetachEntries();

    // A constant nil, for `nil` and other read-only values made at load time.
    struct ConstTag
    {
    };
    constexpr explicit ScriptVal(ConstTag) noexcept : m_Type(SV_Nil | SVF_Const), m_Value{} {}

    // A string key by text, length and hash (the look-ups' working form).
    struct TextKey;

private:
    void Build(ScriptValType typeWord, const void *data);
    void BuildString(const ScriptValue *src);
    void BuildOwned(uint32_t kind, const ScriptValue *src);
    void AdoptString(char *block);
    bool CanSteal() const;
    void Steal(ScriptVal &other);
    ORVEX_INTERNAL void TakeIndex(ScriptVal &other);
    ScriptObject *RemoteLocal() const;
    void DumpTable(int indent) const;

    bool HoldsTable() const;
    TableEntry *LastEntry() const;
    void Append(TableEntry *entry);
    void CleanTable();
    // The table's index, or null: tables without one pay a single test.
    TableIndex *Index() const { return m_Index ? CheckedIndex() : nullptr; }
    ORVEX_INTERNAL TableIndex *CheckedIndex() const;
    ORVEX_INTERNAL void DropIndex() const;
    ORVEX_INTERNAL void GrowIndex() const;
    ORVEX_INTERNAL void LinkTail(TableEntry *entry, TableEntry *last);
    ORVEX_INTERNAL ScriptVal *FindNumberIndexed(TableIndex *index, double key, bool add);
    void StoreTable(const ScriptValue *src);
    [[nodiscard]] bool CopyArray(const TableEntry *source);
    void CopyEntries(const TableEntry *source);
    ScriptVal *FindNumber(double key, bool add);
    ScriptVal *FindText(const TextKey &key, bool add, bool noCase);
    ScriptVal *FindKeyPtr(const ScriptVal &key) const;
    ScriptVal RemoteGet(const ScriptVal &key);
    void RemoteSet(const ScriptVal &key, const ScriptVal &value);
};

// The constant nil value: what const look-ups give for a missing key. Assigning to it does nothing.
ORVEX_API extern ScriptVal nil;

// The prologue under which value texts are read: names that are no globals become constructor
// records, so "Point { ... }" reads as a table named Point. Ends in "return ". `tags` is unused.
ORVEX_API const char *GetSerializePrologue(TagList *tags = nullptr);

// A value read from text under the serialize prologue (nil if the text does not read).
class ORVEX_API ScriptValText : public ScriptVal
{
public:
    explicit ScriptValText(const char *text);
};

} // namespace orvexScript
