// Walking a parsed document: search, log dump, namespace stripping, and escaping of
// text for XML output.
#include <string.h>

#include "base/api.h"
#include "base/log.h"
#include "xml/xml_internal.h"

namespace kep {

XmlNode *xmlNextNode(XmlNode *element, XmlNode *top) {
    if (!element) return nullptr;
    if (element->firstChild) return element->firstChild;
    if (element == top) return nullptr;
    if (element->next) return element->next;
    for (XmlNode *up = element->parent; up && up != top; up = up->parent) {
        if (up->next) return up->next;
    }
    return nullptr;
}

void printfXmlNode(XmlNode *element) {
    if (!element) return;
    KEP_LOG("Node.name = %s, Node.value = %s.\r\n", element->name, element->value);
    for (XmlAttr *attr = element->attrs; attr; attr = attr->next) {
        KEP_LOG("Attribute Node.name = %s, Node.value = %s.\r\n", attr->name, attr->value);
    }
}

}  // namespace kep

KEP_API XmlNode *strNodeSearch(XmlNode *start, XmlNode *top, const char *prefix) {
    if (!start || !top || !prefix || !*prefix) return nullptr;
    const size_t len = strlen(prefix);
    for (XmlNode *node = kep::xmlNextNode(start, top); node; node = kep::xmlNextNode(node, top)) {
        if (strncmp(node->name, prefix, len) == 0) return node;
    }
    return nullptr;
}

KEP_API void printfXmlTree(XmlNode *node) {
    for (XmlNode *n = node; n; n = kep::xmlNextNode(n, node)) kep::printfXmlNode(n);
}

KEP_API void mxmlNodeStripNs(XmlNode *node) {
    for (XmlNode *n = node; n; n = kep::xmlNextNode(n, node)) {
        if (char *colon = strchr(n->name, ':')) memmove(n->name, colon + 1, strlen(colon + 1) + 1);
    }
}

KEP_API int mxmlEncodeEleNode(const char *src, int length, char *dst, int size) {
    if (!src || !dst || length < 0 || size < 0) return -1;
    int written = 0;
    for (int i = 0; i < length; i++) {
        const kep::XmlEntity *entity = nullptr;
        for (const kep::XmlEntity &e : kep::kXmlEntities) {
            if (e.ch == src[i]) {
                entity = &e;
                break;
            }
        }
        if (entity) {
            const int nameLen = static_cast<int>(strlen(entity->name));
            if (size - written < nameLen + 3) return -1;
            dst[written++] = '&';
            memcpy(dst + written, entity->name, static_cast<size_t>(nameLen));
            written += nameLen;
            dst[written++] = ';';
        } else {
            if (size - written <= 1) {
                KEP_LOG("output string don't have enough space!\r\n");
                return -1;
            }
            dst[written++] = src[i];
        }
    }
    // Also covers size 0, where not even the terminator fits.
    if (size <= written) {
        KEP_LOG("output string don't have enough space!\r\n");
        return -1;
    }
    dst[written] = '\0';
    return 0;
}
