/*
 * The pooled XML parser and the model description loader.
 *
 * A parse returns a document handle whose *doc is the top element; every node of
 * one document lives in the document's own pool and is released at once by
 * mxmlTreeDelete. Names hold at most 31 characters, values 63, attribute names 15
 * and attribute values 31.
 */
#ifndef KEP_XML_H
#define KEP_XML_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct XmlAttr {
    struct XmlAttr *next;
    char name[16];
    char value[32];
} XmlAttr;

typedef struct XmlNode {
    struct XmlNode *next, *prev, *parent, *firstChild, *lastChild;
    char name[32];
    char value[64];
    XmlAttr *attrs;
} XmlNode;

/* NULL on any failure. keepAll 0 keeps only the elements of the model description. */
XmlNode **fdXmlParse(int fd, int keepAll);
XmlNode **strXmlParse(const char *text, int keepAll);
void mxmlTreeDelete(XmlNode **doc);
XmlNode *strNodeSearch(XmlNode *start, XmlNode *top, const char *prefix);
void printfXmlTree(XmlNode *node);
void mxmlNodeStripNs(XmlNode *node);
/* Escapes the XML special characters of src into dst; 0 or -1. */
int mxmlEncodeEleNode(const char *src, int length, char *dst, int size);

/* Builds the tree from the model description compiled into the library; 0 or -1. */
int dataModuleInit(void);
/* Merges a parsed description; root is its top element. 0 or -1. */
int registerDataModel(XmlNode *root);

#ifdef __cplusplus
}
#endif

#endif
