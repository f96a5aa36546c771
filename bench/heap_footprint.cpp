// Heap held by a tree of 100 modules x 10 tables x 10 sections, built from model
// descriptions as a host builds it, against the sum of its records' sizes.
// Prints one JSON object (read by tools/bench-report.sh).
#include <malloc.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "kepHandle.h"

namespace {

constexpr int kModules = 100, kTables = 10, kSections = 10;

size_t heapInUse() {
    struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;
}

// One description per module (111 elements, well under the parser's limit).
bool mergeModule(int m) {
    std::string xml = "<model><module name=\"mod" + std::to_string(m) + "\">";
    for (int t = 0; t < kTables; t++) {
        xml += "<table name=\"table" + std::to_string(t) + "\" attribute=\"config\">";
        for (int s = 0; s < kSections; s++) xml += "<section name=\"section" + std::to_string(s) + "\"/>";
        xml += "</table>";
    }
    xml += "</module></model>";
    XmlNode **doc = strXmlParse(xml.c_str(), 1);
    bool ok = doc && registerDataModel(*doc) == 0;
    if (doc) mxmlTreeDelete(doc);
    return ok;
}

}  // namespace

int main() {
    // Warm the allocator and the library's own lazily made state with one module
    // outside the measured range, then count only the tree's growth.
    if (!mergeModule(kModules)) return 1;
    const size_t before = heapInUse();
    for (int m = 0; m < kModules; m++) {
        if (!mergeModule(m)) {
            fprintf(stderr, "merging module %d failed\n", m);
            return 1;
        }
    }
    const size_t after = heapInUse();

    size_t modules = 0, tables = 0, sections = 0, options = 0, records = 0;
    for (DataModule *m = getModulerRoot(); m; m = reinterpret_cast<DataModule *>(lstNext(&m->link))) {
        if (strcmp(m->name, ("mod" + std::to_string(kModules)).c_str()) == 0) continue;
        modules++;
        records += sizeof(DataModule);
        for (LstNode *t = lstFirst(&m->tables); t; t = lstNext(t)) {
            DataTable *table = reinterpret_cast<DataTable *>(t);
            tables++;
            records += sizeof(DataTable) + static_cast<size_t>(table->optionCount) * sizeof(DataOption);
            options += static_cast<size_t>(table->optionCount);
            for (LstNode *s = lstFirst(&table->sections); s; s = lstNext(s)) {
                sections++;
                records += sizeof(DataSection);
            }
        }
    }
    const size_t heap = after - before;
    printf(
        "{\"modules\": %zu, \"tables\": %zu, \"sections\": %zu, \"options\": %zu,\n"
        " \"sizeof_module\": %zu, \"sizeof_table\": %zu, \"sizeof_section\": %zu,\n"
        " \"record_bytes\": %zu, \"heap_bytes\": %zu, \"ratio\": %.4f}\n",
        modules, tables, sections, options, sizeof(DataModule), sizeof(DataTable), sizeof(DataSection),
        records, heap, static_cast<double>(heap) / static_cast<double>(records));
    return 0;
}
