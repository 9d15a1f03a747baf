// The demo host's objects: a root that makes documents, documents that hold layers. Every object lives
// while something holds a reference to it, here or in a peer: the root holds the open documents, a
// document its layers, a peer's proxy the object it names. A closed document leaves the open list and
// lives on while anything still refers to it.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "objects/ScriptInfo.h"

namespace orvexDemo
{

using orvexScript::RefObject;
using orvexScript::ScriptInfo;

// A scriptable object counted in LiveObjects. Born with one reference, the maker's.
class DemoObject : public RefObject
{
public:
    DemoObject();
    ~DemoObject() override;
    void IncRef() override { Use(); }
    void DecRef() override { Recycle(); }
    ScriptInfo *GetScriptInfo() const override { return m_Info; }
    void SetScriptInfo(ScriptInfo *info) override { m_Info = info; }

    // Documents and layers that exist, in this process.
    static int Live() { return s_Live.load(); }

private:
    ScriptInfo *m_Info = nullptr;
    static std::atomic<int> s_Live;
};

// Members: Name (read, write), Opacity (a number, read, write).
class Layer : public DemoObject
{
public:
    explicit Layer(const char *name);

    std::mutex m_Lock;
    std::string m_Name;
    double m_Opacity = 1.0;
};

class DemoRoot;

// Members: Name (read, write), AddLayer(name) gives a new Layer, Layers() the table of its layers in
// the order added, Close() takes it out of the root's open documents.
class Document : public DemoObject
{
public:
    Document(DemoRoot *root, const char *name);
    ~Document() override;

    std::mutex m_Lock;
    std::string m_Name;
    std::vector<Layer *> m_Layers; // one reference each
    DemoRoot *m_Root;              // the root outlives every document (it is never destroyed)
};

// The root: Version (a string, read only), Echo(...) gives back its arguments, Add(a, b), Sleep(s)
// blocks the thread that runs it for s seconds (at most 60), Fail(text) answers with an error
// carrying the text, NewDocument(name) gives a new open Document, Documents() the table of the open
// documents in the order made, LiveObjects() how many documents and layers exist.
class DemoRoot : public RefObject
{
public:
    DemoRoot(); // born with one reference, the host's
    ~DemoRoot() override;
    void IncRef() override { Use(); }
    void DecRef() override { Recycle(); }
    ScriptInfo *GetScriptInfo() const override { return m_Info; }
    void SetScriptInfo(ScriptInfo *info) override { m_Info = info; }

    // Takes the document out of the open list; false if it was not there.
    bool CloseDocument(Document *document);
    // Closes every open document (the host does this at its end).
    void CloseAll();

    static constexpr const char *kVersion = "1.0";
    static constexpr double kMaxSleep = 60.0;

    std::mutex m_Lock;
    std::vector<Document *> m_Open; // one reference each

private:
    ScriptInfo *m_Info = nullptr;
};

} // namespace orvexDemo
