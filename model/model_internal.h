// Internal steps of building the tree from a model description.
#pragma once

#include "kep_tree.h"
#include "kep_xml.h"

namespace kep {

// Copies the element's "name" attribute (the first in attribute-list order), cut to
// size - 1 characters, into dst. 0, or -1 when the element has none.
int readNameAttr(char *dst, unsigned size, const XmlNode *element);

// Fills a freshly allocated table from its element: name, kind, public, and one
// section per section element below it. 0, or -1 (no name, no memory); what was
// built before a failure stays in the table.
int parseTableElement(DataTable *table, XmlNode *element);

// The model description that dataModuleInit reads (fixed at build time).
const char *modelPath();

// dataModuleInit over the description at path; logs as dataModuleInit. 0 or -1.
int loadModelFile(const char *path);

}  // namespace kep
