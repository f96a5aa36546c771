// Steps shared by the model operations: calling a callback, resolving section names,
// log arguments.
#pragma once

#include "base/guard.h"
#include "kep_tree.h"
#include "ops/imi_invoke.h"
#include "tree/tree_search.h"

namespace kep {

// Runs the call sequence for a filled record in a parameter set of its own; the
// callee's result text is dropped.
int invokeCallback(ModelReqParams &params);

// The same, parsing the callee's result text into out on success. out stays empty
// when the result is absent or not JSON; the caller decides what that means.
int invokeForJson(ModelReqParams &params, JsonPtr &out);

// True with params addressed at node; false for an empty slot.
bool takeSlot(const MethodCbNode *node, ModelReqParams &params);

// Which trace a section walk writes per table: editing names the module too.
enum class WalkTrace { Edit, Delete };

// The first section node of that exact name, tables and sections in list order.
bool findSectionNode(DataModule *module, const char *name, WalkTrace trace, SectionHit *hit);

// The list table that a list-section name (table, '_', suffix) belongs to: the text
// before the last underscore; with wholeNameFirst, a table named like the whole name
// wins. Null when the name has no underscore or there is no such table.
DataTable *listTableOf(DataModule *module, const char *name, bool wholeNameFirst);

// Log arguments: null texts print as "(null)"; JSON texts are only serialised while
// the debug log is on, since serialising is not free.
inline const char *orNull(const char *text) {
    return text ? text : "(null)";
}
const char *logJson(json_object *value);

}  // namespace kep
