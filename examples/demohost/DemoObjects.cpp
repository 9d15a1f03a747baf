// The demo host's classes and their members.
#include "examples/demohost/DemoObjects.h"

#include <chrono>
#include <stdexcept>
#include <thread>

namespace orvexDemo
{

using namespace orvexScript;

std::atomic<int> DemoObject::s_Live{0};

namespace
{
ScriptInfoT<DemoRoot> s_RootInfo(1, "DemoRoot", "the demo host's root");
ScriptInfoT<Document> s_DocumentInfo(1, "Document", "a document of the demo host");
ScriptInfoT<Layer> s_LayerInfo(1, "Layer", "a layer of a document");

template <class T> T *Self(void *self)
{
    return static_cast<T *>(self);
}

// A table of objects at keys 1..n; the table holds a reference to each.
template <class T> ScriptVal ObjectTable(const std::vector<T *> &objects)
{
    ScriptVal table(SV_Table, nullptr);
    int key = 1;
    for (T *object : objects)
        table[key++] = static_cast<ScriptObject *>(object);
    return table;
}

// ---- root ---------------------------------------------------------------------------------------

void Version(void *, ScriptArgs &args, ScriptSymbol *, bool set)
{
    if (!set) args.ReturnString(DemoRoot::kVersion);
}

void Echo(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    const int count = args.NumArgs();
    for (int i = 1; i <= count; ++i)
        args.Return(ScriptVal(args.FindKeyConst(i)));
}

void Add(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    args.ReturnNumber(args[1].ToNumber() + args[2].ToNumber());
}

void Sleep(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    double seconds = args[1].ToNumber();
    if (!(seconds <= DemoRoot::kMaxSleep)) seconds = DemoRoot::kMaxSleep; // NaN too
    if (seconds > 0) std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    args.ReturnBoolean(true);
}

// Only results travel back to a caller; a member fails by throwing, which the command runner turns
// into an error reply carrying the text.
void Fail(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    throw std::runtime_error(args[1].ToString("failed"));
}

void NewDocument(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    DemoRoot *root = Self<DemoRoot>(self);
    auto *document = new Document(root, args[1].ToString("Untitled"));
    {
        std::lock_guard<std::mutex> hold(root->m_Lock);
        root->m_Open.push_back(document); // the list takes the maker's reference
    }
    args.ReturnObject(document);
}

void Documents(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    DemoRoot *root = Self<DemoRoot>(self);
    ScriptVal table;
    {
        std::lock_guard<std::mutex> hold(root->m_Lock);
        table = ObjectTable(root->m_Open);
    }
    args.Return(table);
}

void LiveObjects(void *, ScriptArgs &args, ScriptSymbol *, bool)
{
    args.ReturnNumber(DemoObject::Live());
}

// ---- document -----------------------------------------------------------------------------------

void DocumentName(void *self, ScriptArgs &args, ScriptSymbol *, bool set)
{
    Document *document = Self<Document>(self);
    std::lock_guard<std::mutex> hold(document->m_Lock);
    if (set)
        document->m_Name = args[1].ToString("");
    else
        args.ReturnString(document->m_Name.c_str());
}

void AddLayer(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    Document *document = Self<Document>(self);
    auto *layer = new Layer(args[1].ToString("Layer"));
    {
        std::lock_guard<std::mutex> hold(document->m_Lock);
        document->m_Layers.push_back(layer); // the document takes the maker's reference
    }
    args.ReturnObject(layer);
}

void Layers(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    Document *document = Self<Document>(self);
    ScriptVal table;
    {
        std::lock_guard<std::mutex> hold(document->m_Lock);
        table = ObjectTable(document->m_Layers);
    }
    args.Return(table);
}

void Close(void *self, ScriptArgs &args, ScriptSymbol *, bool)
{
    Document *document = Self<Document>(self);
    args.ReturnBoolean(document->m_Root->CloseDocument(document));
}

// ---- layer --------------------------------------------------------------------------------------

void LayerName(void *self, ScriptArgs &args, ScriptSymbol *, bool set)
{
    Layer *layer = Self<Layer>(self);
    std::lock_guard<std::mutex> hold(layer->m_Lock);
    if (set)
        layer->m_Name = args[1].ToString("");
    else
        args.ReturnString(layer->m_Name.c_str());
}

void Opacity(void *self, ScriptArgs &args, ScriptSymbol *, bool set)
{
    Layer *layer = Self<Layer>(self);
    std::lock_guard<std::mutex> hold(layer->m_Lock);
    if (set)
        layer->m_Opacity = args[1].ToNumber(layer->m_Opacity);
    else
        args.ReturnNumber(layer->m_Opacity);
}

constexpr uint32_t kReadWrite = SST_Variable | SSF_Read | SSF_Write;

ScriptSymbol s_Version(1, "Version", SST_Variable | SSF_Read, Version, s_RootInfo);
ScriptSymbol s_Echo(1, "Echo", SST_Function, Echo, s_RootInfo);
ScriptSymbol s_Add(1, "Add", SST_Function, Add, s_RootInfo);
ScriptSymbol s_Sleep(1, "Sleep", SST_Function, Sleep, s_RootInfo);
ScriptSymbol s_Fail(1, "Fail", SST_Function, Fail, s_RootInfo);
ScriptSymbol s_NewDocument(1, "NewDocument", SST_Function, NewDocument, s_RootInfo);
ScriptSymbol s_Documents(1, "Documents", SST_Function, Documents, s_RootInfo);
ScriptSymbol s_LiveObjects(1, "LiveObjects", SST_Function, LiveObjects, s_RootInfo);
ScriptSymbol s_DocumentName(1, "Name", kReadWrite, DocumentName, s_DocumentInfo);
ScriptSymbol s_AddLayer(1, "AddLayer", SST_Function, AddLayer, s_DocumentInfo);
ScriptSymbol s_Layers(1, "Layers", SST_Function, Layers, s_DocumentInfo);
ScriptSymbol s_Close(1, "Close", SST_Function, Close, s_DocumentInfo);
ScriptSymbol s_LayerName(1, "Name", kReadWrite, LayerName, s_LayerInfo);
ScriptSymbol s_Opacity(1, "Opacity", kReadWrite, Opacity, s_LayerInfo);
} // namespace

DemoObject::DemoObject()
{
    ++s_Live;
}

DemoObject::~DemoObject()
{
    --s_Live;
}

Layer::Layer(const char *name) : m_Name(name ? name : "")
{
    _SetScriptInfo(this, s_LayerInfo);
}

Document::Document(DemoRoot *root, const char *name) : m_Name(name ? name : ""), m_Root(root)
{
    _SetScriptInfo(this, s_DocumentInfo);
}

Document::~Document()
{
    for (Layer *layer : m_Layers)
        layer->DecRef();
}

DemoRoot::DemoRoot()
{
    _SetScriptInfo(this, s_RootInfo);
}

DemoRoot::~DemoRoot()
{
    CloseAll();
}

bool DemoRoot::CloseDocument(Document *document)
{
    Document *closed = nullptr;
    {
        std::lock_guard<std::mutex> hold(m_Lock);
        for (auto it = m_Open.begin(); it != m_Open.end(); ++it)
            if (*it == document)
            {
                closed = *it;
                m_Open.erase(it);
                break;
            }
    }
    if (!closed) return false;
    closed->DecRef(); // outside the lock: it may be the last reference
    return true;
}

void DemoRoot::CloseAll()
{
    std::vector<Document *> open;
    {
        std::lock_guard<std::mutex> hold(m_Lock);
        open.swap(m_Open);
    }
    for (Document *document : open)
        document->DecRef();
}

} // namespace orvexDemo
