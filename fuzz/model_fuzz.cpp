// Dictionary: model.dict
// Feeds fuzzed model descriptions through the start-up build and the merge, then
// registers on everything that was built, removes part of it again and dumps the tree.
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "kep_pf_debug.h"
#include "kep_tree.h"
#include "kep_xml.h"
#include "model/model_internal.h"
#include "tree/tree_internal.h"

namespace {

void discard(int, const char *, void *) {}

template <typename T>
T *as(LstNode *n) {
    return reinterpret_cast<T *>(n);
}

void registerEverything() {
    int i = 0;
    for (LstNode *m = lstFirst(&kep::moduleRoot()); m; m = lstNext(m)) {
        DataModule *module = as<DataModule>(m);
        for (LstNode *t = lstFirst(&module->tables); t; t = lstNext(t), i++) {
            DataTable *table = as<DataTable>(t);
            char path[128];
            snprintf(path, sizeof path, "/%s/%s", module->name, table->name);
            OprInterface opr{};
            opr.pid = i;
            snprintf(opr.cb, sizeof opr.cb, "cb%d", i);
            regOprInterface(path, &opr);
            registerMethodCb(path, i % 4, "method", i);
            registerVerNotify(path, i % 2, "check", i);
            for (LstNode *s = lstFirst(&table->sections); s; s = lstNext(s)) {
                snprintf(path, sizeof path, "/%s/%s/%s", module->name, table->name, as<DataSection>(s)->name);
                regOprInterface(path, &opr);
                registerMethodCb(path, (i + 1) % 4, "section", i);
                registerVerNotify(path, 1, "verify", i);
                DataSection *found = nullptr;
                findSectionInModule(module->name, as<DataSection>(s)->name, &found);
            }
            if (i % 3 == 0) unRegisterMethodCb(path, (i + 1) % 4, "section", i);
            if (i % 5 == 0) unRegisterVerNotify(path, 1, "verify", i);
        }
        for (LstNode *a = lstFirst(&module->actions); a; a = lstNext(a)) {
            char path[128];
            snprintf(path, sizeof path, "/%s/%s", module->name, as<ActionNode>(a)->name);
            registerMethodCb(path, KEP_METHOD_ACTION, "action", 1);
        }
        registerAction(module->name, "fuzz_action", "cb", 2);
    }
}

void removeSome() {
    int i = 0;
    for (LstNode *m = lstFirst(&kep::moduleRoot()); m; m = lstNext(m), i++) {
        DataModule *module = as<DataModule>(m);
        if (LstNode *t = lstFirst(&module->tables)) {
            char path[128];
            snprintf(path, sizeof path, "/%s/%s", module->name, as<DataTable>(t)->name);
            unregisterTable(path);
        }
        if (i % 2) delDataModule(module->name, 1);
    }
}

// The start-up build reads a file: hand it the input through an anonymous one.
void loadThroughFile(const uint8_t *data, size_t size) {
    int fd = memfd_create("model", MFD_CLOEXEC);
    if (fd < 0) return;
    if (write(fd, data, size) == static_cast<ssize_t>(size) && lseek(fd, 0, SEEK_SET) == 0) {
        char path[64];
        snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
        kep::loadModelFile(path);
    }
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool quiet = [] {
        debugSetSink(discard, nullptr);
        debugFlagSet(-1, 1);  // format every line, so the dump's arguments are checked
        return true;
    }();
    (void)quiet;
    kep::resetTreeForTest();
    std::string text(reinterpret_cast<const char *>(data), size);
    if (XmlNode **doc = strXmlParse(text.c_str(), 1)) {
        registerDataModel(*doc);
        registerDataModel(*doc);  // a second merge only skips
        mxmlTreeDelete(doc);
    }
    loadThroughFile(data, size);
    registerEverything();
    printDataModuleTree();
    removeSome();
    printDataModuleTree();
    kep::resetTreeForTest();
    return 0;
}
