/*
 * The pooled XML parser and the model description loader.
 *
 * A parse returns a document handle whose *doc is the top element; every node of
 * one document lives in the document's own pool and is released at once by
 * mxmlTreeDelete. Names hold at most 31 characters, values 63, attribute names 15
 * and attribute values 31. Longer ones are cut, but a name, an attribute value, a
 * run of text between two tags or a comment that does not fit the parser's
 * 63-character buffer fails the parse, and so does the closing tag of an element
 * whose name was cut (tools/kepcheck names each).
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

/* NULL on any failure. keepAll nonzero keeps every element; model descriptions are read
 * so. keepAll 0 keeps only the elements named as in a device description: root, URLBase,
 * device, deviceList, deviceType, presentationURL, serviceList, service, serviceType,
 * serviceId, controlURL, eventSubURL and SCPDURL, compared on at most eight characters
 * ("deviceTypeX" is kept too). Any other element is skipped by reading on to the next
 * occurrence of its name, wherever it is (normally its closing tag), and past the ">"
 * after it; an element with no later occurrence (<x/>) fails the parse. A model
 * description's top element is skipped, so with 0 it gives NULL. */
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
