// Dictionary: xml.dict
//
// Fuzzes the XML parser: text input with both filter modes, descriptor input through a
// memfd (which must build the same tree as the text), then every tree operation.
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "kep_pf_debug.h"
#include "kep_xml.h"

namespace {

void discard(int, const char *, void *) {}

bool sameTree(const XmlNode *a, const XmlNode *b) {
    // Both trees come from the parser, which bounds their depth; walk them in step
    // without recursion anyway.
    const XmlNode *topA = a;
    while (a && b) {
        if (strcmp(a->name, b->name) != 0 || strcmp(a->value, b->value) != 0) return false;
        const XmlAttr *x = a->attrs;
        const XmlAttr *y = b->attrs;
        for (; x && y; x = x->next, y = y->next) {
            if (strcmp(x->name, y->name) != 0 || strcmp(x->value, y->value) != 0) return false;
        }
        if (x || y) return false;
        if (!a->firstChild != !b->firstChild) return false;
        if (a->firstChild) {
            a = a->firstChild;
            b = b->firstChild;
            continue;
        }
        while (a != topA && !a->next) {
            if (b->next) return false;
            a = a->parent;
            b = b->parent;
        }
        if (a == topA) return true;
        if (!b->next) return false;
        a = a->next;
        b = b->next;
    }
    return !a && !b;
}

void exercise(XmlNode **doc) {
    if (!doc) return;
    XmlNode *top = *doc;
    printfXmlTree(top);
    char prefix[3] = {top->name[0], top->name[1], 0};
    for (XmlNode *n = strNodeSearch(top, top, prefix); n; n = strNodeSearch(n, top, prefix)) {
        char out[96];
        mxmlEncodeEleNode(n->value, static_cast<int>(strlen(n->value)), out, sizeof out);
    }
    mxmlNodeStripNs(top);
    if (top->firstChild) printfXmlTree(top->firstChild);
    mxmlTreeDelete(doc);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool logging = [] {
        debugSetSink(discard, nullptr);
        debugFlagSet(-1, 1);
        return true;
    }();
    (void)logging;

    const std::string text(reinterpret_cast<const char *>(data), size);
    XmlNode **fromText = strXmlParse(text.c_str(), 1);
    exercise(strXmlParse(text.c_str(), 0));

    int fd = memfd_create("xml_fuzz", 0);
    if (fd < 0) {
        exercise(fromText);
        return 0;
    }
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    XmlNode **fromFd = fdXmlParse(fd, 1);
    close(fd);
    // A zero byte ends text input but not a descriptor's.
    if (done == size && memchr(data, 0, size) == nullptr) {
        if (!fromText != !fromFd || (fromText && !sameTree(*fromText, *fromFd))) __builtin_trap();
    }
    exercise(fromText);
    exercise(fromFd);
    return 0;
}
