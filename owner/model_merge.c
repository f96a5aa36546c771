/* Merging a model description file into this process's tree (kep_host.h). */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "kep_host.h"
#include "kep_xml.h"

/* Names become parts of paths ("/module/table/section") and file names: one with "/",
 * ".." or a control character is refused with the merge, not taken apart later. */
static int namesUsable(const XmlNode *node, const char *file) {
    static const char *const kinds[] = {"module", "table", "section", "service"};
    for (; node; node = node->next) {
        for (size_t k = 0; k < sizeof kinds / sizeof kinds[0]; k++) {
            if (strncmp(node->name, kinds[k], strlen(kinds[k])) != 0) continue;
            for (const XmlAttr *a = node->attrs; a; a = a->next) {
                const char *bad = NULL;
                if (strcmp(a->name, "name") != 0) continue;
                if (strchr(a->value, '/'))
                    bad = "\"/\"";
                else if (strstr(a->value, ".."))
                    bad = "\"..\"";
                for (const char *p = a->value; !bad && *p; p++) {
                    if ((unsigned char)*p < 0x20 || *p == 0x7f) bad = "a control character";
                }
                if (bad) {
                    fprintf(stderr, "%s: %s name \"%s\" holds %s: refused\n", file, kinds[k], a->value, bad);
                    return 0;
                }
            }
        }
        if (!namesUsable(node->firstChild, file)) return 0;
    }
    return 1;
}

int kepMergeModelFile(const char *file) {
    int fd = open(file, O_RDONLY | O_CLOEXEC);
    XmlNode **doc;
    int rc;
    if (fd < 0) {
        fprintf(stderr, "cannot open %s: %s\n", file, strerror(errno));
        return -1;
    }
    doc = fdXmlParse(fd, 1);
    close(fd);
    if (!doc) {
        fprintf(stderr, "%s is not a usable model description (kepcheck says why)\n", file);
        return -1;
    }
    if (!namesUsable(*doc, file)) {
        mxmlTreeDelete(doc);
        return -1;
    }
    rc = registerDataModel(*doc);
    mxmlTreeDelete(doc);
    if (rc != 0) fprintf(stderr, "merging %s into the tree failed\n", file);
    return rc;
}
