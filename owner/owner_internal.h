// The owner's kit inside: what was described, and the pieces that serve it.
#ifndef KEP_OWNER_INTERNAL_H
#define KEP_OWNER_INTERNAL_H

#include <stddef.h>
#include <stdlib.h>

#include <json-c/json.h>

#include "kepHandle.h"
#include "kep_owner.h"
#include "kep_pf_rpc.h"

namespace kep_owner {

// Everything the kit registers with the host is one entry: stored data, a table of
// named sections (its table-level read), a dynamic table, an action, a listener.
enum class Kind { kList, kSection, kSections, kDynamic, kAction, kListen };

constexpr int kMaxEntries = 128;
constexpr int kMaxConverted = 64;  // entries that convert with a field table
constexpr size_t kMaxRecord = 64 * 1024;
constexpr int kPathSize = 100;  // "/" module "/" table "/" section, each at most 31
constexpr int kCbSize = 68;     // "<path>:<method>", as the tree holds it

struct Entry {
    Kind kind;
    KepOwnerData data;  // stored data; path and prefix point into this entry
    char path[kPathSize];
    char prefix[32];
    char module[32];
    char table[32];
    char section[32];
    DataModule *moduleNode;
    DataTable *tableNode;
    KepProduceFn produce;
    KepActionFn action;
    KepListenFn listen;
    void *user;
    char cb[5][kCbSize];  // per method index of kep_tree.h (actions and listeners use 4)
};

Entry *entries();
int entryCount();
// The entry of a path and kind, or null.
Entry *findEntry(Kind kind, const char *path);
// Whether this process owns (has described anything of) the module.
bool ownsModule(const DataModule *module);

// Conversion functions bound to entry e's field table; false when none are left.
bool bindFields(Entry *e);
// Gives back the conversion functions bound last (to e), after e could not be added.
void unbindFields(const Entry *e);

// Releases a JSON value on every path.
struct JsonRef {
    json_object *p;
    explicit JsonRef(json_object *v = nullptr) : p(v) {}
    JsonRef(const JsonRef &) = delete;
    JsonRef &operator=(const JsonRef &) = delete;
    ~JsonRef() { json_object_put(p); }
};

// A record's buffer, zeroed; p is null without memory.
struct RecordBuffer {
    void *p;
    explicit RecordBuffer(size_t size) : p(calloc(1, size)) {}
    RecordBuffer(const RecordBuffer &) = delete;
    RecordBuffer &operator=(const RecordBuffer &) = delete;
    ~RecordBuffer() { free(p); }
};

// The table's section node of that name, or null.
DataSection *findRow(DataTable *table, const char *name);
// A name that may become part of a path and of JSON text: no "/", quote, backslash or
// control character.
bool plainName(const char *name);

// A section's path; false when it does not fit.
bool sectionPath(const Entry &e, const char *section, char *path);
// Reads a stored section into record (e.data.recordSize bytes).
bool readRecord(const Entry &e, const char *section, void *record);
// The record's JSON form through the entry's conversion; null on failure.
json_object *recordToJson(const Entry &e, const char *section, const void *record);
// Builds a record from JSON through the entry's conversion; false when refused.
bool jsonToRecord(const Entry &e, const char *section, json_object *value, void *record);
// 1 when every member of filter equals the row's member (a null filter matches all).
bool matchesFilter(json_object *row, json_object *filter);

// Loads the owned modules' files, writing the defaults of what is missing.
int loadOwnedFiles();
// Writes the owned modules' defaults and brings the tree and the owner in line.
int resetOwnedModules();
// After a delete emptied a list table, the file keeps an empty array for it, so that
// a table emptied on purpose is not taken for one never written.
void keepEmptyList(const Entry &e);

// The RPC handlers of every entry; 0 or the first failure.
int registerHandlers();
// The host this owner registered with: its pid, or 0.
int registeredHost();

// Asks for the section's listeners to be told once the current call is answered.
void notifyLater(const char *path);
// Asks for unused heap to go back to the system (after a large answer).
void trimLater();

// An answer written member by member, so that a large table never exists as one
// JSON object as well (it would take about twenty times its text).
class AnswerText {
public:
    AnswerText() = default;
    AnswerText(const AnswerText &) = delete;
    AnswerText &operator=(const AnswerText &) = delete;
    ~AnswerText();
    // Appends "name": value and releases value.
    void member(const char *name, json_object *value);
    // Answers code with the members as one object.
    int answer(QxRpcPara *set, int code);
    bool failed() const { return failed_; }

private:
    void append(const char *text, size_t n);
    char *data_ = nullptr;
    size_t len_ = 0;
    size_t cap_ = 0;
    bool failed_ = false;
};

// "errorCode" and, when not null, "result".
int answer(QxRpcPara *set, int code, const char *result);
// The same with a JSON result, which it releases.
int answerJson(QxRpcPara *set, int code, json_object *result);

}  // namespace kep_owner

#endif
