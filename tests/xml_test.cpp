// The pooled XML parser: limits at their boundaries, malformed input, pool retries,
// entities, the device-description filter, descriptor input, the tree walkers and
// release on every failure path.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kep_xml.h"
#include "log_capture.h"
#include "xml/xml_internal.h"

namespace {

using kep::XmlDoc;

XmlDoc parse(const std::string &text, int keepAll = 1) {
    return XmlDoc(strXmlParse(text.c_str(), keepAll));
}

std::string repeat(char c, size_t n) { return std::string(n, c); }

// Attribute names of an element in list order.
std::vector<std::string> attrNames(const XmlNode *n) {
    std::vector<std::string> out;
    for (const XmlAttr *a = n->attrs; a; a = a->next) out.push_back(a->name);
    return out;
}

std::vector<std::string> childNames(const XmlNode *n) {
    std::vector<std::string> out;
    for (const XmlNode *c = n->firstChild; c; c = c->next) out.push_back(c->name);
    return out;
}

int countMessages(const kep_test::LogCapture &log, const std::string &msg) {
    int n = 0;
    for (const std::string &m : log.messages()) n += m.rfind(msg, 0) == 0;
    return n;
}

// A top element with `children` empty children.
std::string flatDoc(int children) {
    std::string s = "<top>";
    for (int i = 0; i < children; i++) s += "<c/>";
    return s + "</top>";
}

const char kModel[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!-- device model -->\n"
    "<model>\n"
    "  <module name=\"wan\">\n"
    "    <table name=\"wan_cfg\" attribute=\"config\">\n"
    "      <section name=\"wan_cfg_1\"/>\n"
    "      <section name='wan_cfg_2' />\n"
    "    </table>\n"
    "    <table name=\"wan_stat\" attribute=\"dynamic\"></table>\n"
    "    <service name=\"reconnect\"/>\n"
    "    <config name=\"/etc/config/wan.json\"/>\n"
    "  </module>\n"
    "  <module name=\"lan\"><tables name=\"lan_cfg\"/></module>\n"
    "</model>\n";

TEST(XmlParse, ModelDescriptionShape) {
    XmlDoc doc = parse(kModel);
    ASSERT_TRUE(doc);
    XmlNode *root = doc.root();
    EXPECT_STREQ(root->name, "model");
    EXPECT_EQ(root->parent, nullptr);
    EXPECT_EQ(childNames(root), (std::vector<std::string>{"module", "module"}));

    XmlNode *wan = strNodeSearch(root, root, "module");
    ASSERT_NE(wan, nullptr);
    EXPECT_STREQ(wan->attrs->value, "wan");
    EXPECT_EQ(childNames(wan), (std::vector<std::string>{"table", "table", "service", "config"}));

    XmlNode *cfg = strNodeSearch(wan, wan, "table");
    ASSERT_NE(cfg, nullptr);
    EXPECT_EQ(attrNames(cfg), (std::vector<std::string>{"attribute", "name"}));
    XmlNode *s1 = strNodeSearch(cfg, cfg, "section");
    XmlNode *s2 = strNodeSearch(s1, cfg, "section");
    ASSERT_TRUE(s1 && s2);
    EXPECT_STREQ(s1->attrs->value, "wan_cfg_1");
    EXPECT_STREQ(s2->attrs->value, "wan_cfg_2");
    EXPECT_EQ(strNodeSearch(s2, cfg, "section"), nullptr);

    XmlNode *stat = strNodeSearch(cfg, wan, "table");
    ASSERT_NE(stat, nullptr);
    EXPECT_STREQ(stat->attrs->value, "dynamic");
    EXPECT_EQ(strNodeSearch(stat, wan, "table"), nullptr);
    XmlNode *config = strNodeSearch(wan, wan, "config");
    ASSERT_NE(config, nullptr);
    EXPECT_STREQ(config->attrs->value, "/etc/config/wan.json");

    XmlNode *lan = strNodeSearch(wan, root, "module");
    ASSERT_EQ(lan, root->lastChild);
    EXPECT_EQ(lan->prev, wan);
    EXPECT_EQ(wan->next, lan);
    EXPECT_EQ(lan->parent, root);
    EXPECT_STREQ(strNodeSearch(lan, lan, "table")->name, "tables");
    EXPECT_EQ(strNodeSearch(lan, root, "module"), nullptr);
}

TEST(XmlLimits, TextOf63FitsAnd64Fails) {
    XmlDoc doc = parse("<a>" + repeat('t', 63) + "</a>");
    ASSERT_TRUE(doc);
    EXPECT_EQ(std::string(doc.root()->value), repeat('t', 63));
    EXPECT_FALSE(parse("<a>" + repeat('t', 64) + "</a>"));
}

TEST(XmlLimits, ElementNameCutAt31AndFailsAt64) {
    XmlDoc n31 = parse("<" + repeat('n', 31) + "/>");
    ASSERT_TRUE(n31);
    EXPECT_EQ(std::string(n31.root()->name), repeat('n', 31));
    XmlDoc n32 = parse("<" + repeat('n', 32) + "/>");
    ASSERT_TRUE(n32);
    EXPECT_EQ(std::string(n32.root()->name), repeat('n', 31));
    XmlDoc n40 = parse("<" + repeat('n', 40) + " x='1'>");
    ASSERT_TRUE(n40);
    EXPECT_EQ(std::string(n40.root()->name), repeat('n', 31));
    EXPECT_TRUE(parse("<" + repeat('n', 63) + "/>"));
    EXPECT_FALSE(parse("<" + repeat('n', 64) + "/>"));
}

TEST(XmlLimits, AttributeNameCutAt15AndFailsAt64) {
    XmlDoc d15 = parse("<a " + repeat('k', 15) + "='v'/>");
    ASSERT_TRUE(d15);
    EXPECT_EQ(std::string(d15.root()->attrs->name), repeat('k', 15));
    XmlDoc d16 = parse("<a " + repeat('k', 16) + "='v'/>");
    ASSERT_TRUE(d16);
    EXPECT_EQ(std::string(d16.root()->attrs->name), repeat('k', 15));
    EXPECT_TRUE(parse("<a " + repeat('k', 63) + "='v'/>"));
    EXPECT_FALSE(parse("<a " + repeat('k', 64) + "='v'/>"));
}

TEST(XmlLimits, AttributeValueCutAt31AndFailsAt64) {
    XmlDoc d31 = parse("<a k='" + repeat('v', 31) + "'/>");
    ASSERT_TRUE(d31);
    EXPECT_EQ(std::string(d31.root()->attrs->value), repeat('v', 31));
    XmlDoc d32 = parse("<a k=\"" + repeat('v', 32) + "\"/>");
    ASSERT_TRUE(d32);
    EXPECT_EQ(std::string(d32.root()->attrs->value), repeat('v', 31));
    XmlDoc d40 = parse("<a k=" + repeat('v', 40) + "/>");
    ASSERT_TRUE(d40);
    EXPECT_EQ(std::string(d40.root()->attrs->value), repeat('v', 31));
    EXPECT_TRUE(parse("<a k='" + repeat('v', 63) + "'/>"));
    EXPECT_FALSE(parse("<a k='" + repeat('v', 64) + "'/>"));
    EXPECT_FALSE(parse("<a k=" + repeat('v', 64) + "/>"));
}

TEST(XmlLimits, CommentCdataAndDeclarationShareTheBuffer) {
    // "!--" and the closing "--" count against the 63 characters.
    EXPECT_TRUE(parse("<!--" + repeat('c', 58) + "--><a/>"));
    EXPECT_FALSE(parse("<!--" + repeat('c', 59) + "--><a/>"));
    XmlDoc cd = parse("<a><![CDATA[" + repeat('d', 61) + "]]></a>");
    ASSERT_TRUE(cd);
    EXPECT_EQ(std::string(cd.root()->value), repeat('d', 61));
    EXPECT_FALSE(parse("<a><![CDATA[" + repeat('d', 62) + "]]></a>"));
    EXPECT_TRUE(parse("<?" + repeat('p', 61) + "?><a/>"));
    EXPECT_FALSE(parse("<?" + repeat('p', 62) + "?><a/>"));
}

TEST(XmlLimits, BlankTextIsReplacedOtherTextAppendedUpTo63) {
    XmlDoc doc = parse("<a> \r\n\t<b/>x<c/>y</a>");
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc.root()->value, "xy");
    XmlDoc cut = parse("<a>" + repeat('x', 40) + "<b/>" + repeat('y', 40) + "</a>");
    ASSERT_TRUE(cut);
    EXPECT_EQ(std::string(cut.root()->value), repeat('x', 40) + repeat('y', 23));
}

TEST(XmlEntities, PredefinedAndCharacterReferences) {
    XmlDoc doc = parse("<a>x &lt; y&amp;&apos;&gt;&quot;&#65;&#x41;&ampx;</a>");
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc.root()->value, "x < y&'>\"AA&");
    // Only a lower-case x marks a hexadecimal number: "#X41" has no leading decimal
    // digits and gives the byte 0, which ends the value.
    XmlDoc upper = parse("<a>b&#X41;c</a>");
    ASSERT_TRUE(upper);
    EXPECT_STREQ(upper.root()->value, "b");
    XmlDoc low8 = parse("<a>&#321;</a>");  // 0x141: the low eight bits
    ASSERT_TRUE(low8);
    EXPECT_STREQ(low8.root()->value, "A");
}

TEST(XmlEntities, DecodedInNamesAndAttributes) {
    XmlDoc doc = parse("<a&#x62; k&amp;='&lt;v&gt;' u=&quot;/>");
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc.root()->name, "ab");
    EXPECT_EQ(attrNames(doc.root()), (std::vector<std::string>{"u", "k&"}));
    EXPECT_STREQ(doc.root()->attrs->value, "\"");
    EXPECT_STREQ(doc.root()->attrs->next->value, "<v>");
}

TEST(XmlEntities, InvalidReferencesFail) {
    EXPECT_FALSE(parse("<a>&unknown;</a>"));
    EXPECT_FALSE(parse("<a>&;</a>"));
    EXPECT_FALSE(parse("<a>&amp</a>"));      // ended by "<", not ";"
    EXPECT_FALSE(parse("<a>&am p;</a>"));
    EXPECT_FALSE(parse("<a>&amp"));          // end of input
    EXPECT_FALSE(parse("<a k='&bogus;'/>"));
    // 31 name characters are read; a 32nd fails.
    EXPECT_TRUE(parse("<a>&amp" + repeat('z', 28) + ";</a>"));
    EXPECT_FALSE(parse("<a>&amp" + repeat('z', 29) + ";</a>"));
}

TEST(XmlSyntax, CdataIsRawText) {
    XmlDoc doc = parse("<a>  <![CDATA[<b>&amp;]]]></a>");
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc.root()->value, "<b>&amp;]");
    EXPECT_EQ(doc.root()->firstChild, nullptr);
    EXPECT_FALSE(parse("<a><![CDATA[x]]</a>"));
}

TEST(XmlSyntax, CommentsDeclarationsAndInstructionsLeaveNothing) {
    XmlDoc doc = parse(
        "<?xml version=\"1.0\"?>\n<!DOCTYPE a>\n<!-- c -> - <x> -->"
        "<a><!-- inner --><?pi data?><!x></a><!-- after -->");
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc.root()->name, "a");
    EXPECT_EQ(doc.root()->firstChild, nullptr);
    EXPECT_TRUE(parse("<!--><a/>"));  // the marker's own dashes close it
    EXPECT_FALSE(parse("<a/><!-- open"));
    EXPECT_FALSE(parse("<a/><?pi"));
    EXPECT_FALSE(parse("<a/><!DOCTYPE"));
}

TEST(XmlSyntax, ClosingTagsCompareTheClosingNameOnly) {
    EXPECT_FALSE(parse("<a></ab>"));
    EXPECT_TRUE(parse("<ab></a>"));
    EXPECT_TRUE(parse("<ab></>"));
    EXPECT_TRUE(parse("<a></a >"));
    EXPECT_FALSE(parse("<a></b>"));
    EXPECT_FALSE(parse("</a>"));
    EXPECT_FALSE(parse("<a></a></a>"));
    EXPECT_FALSE(parse("<a></a"));
    // A cut name no longer matches its full closing tag.
    EXPECT_FALSE(parse("<" + repeat('n', 32) + "></" + repeat('n', 32) + ">"));
}

TEST(XmlSyntax, DocumentStructure) {
    EXPECT_FALSE(parse(""));
    EXPECT_FALSE(parse("just text"));
    EXPECT_FALSE(parse("<a/><b/>"));
    EXPECT_FALSE(parse("<a></a><b></b>"));
    EXPECT_FALSE(parse("<a><b></b>"));  // closed an inner element, left the top open
    EXPECT_FALSE(parse("<a><b>"));
    EXPECT_FALSE(parse("<a"));
    EXPECT_FALSE(parse("<a><<b/></a>"));
    EXPECT_FALSE(parse("< a/>"));       // empty name
    XmlDoc lone = parse("<a>dropped text");
    ASSERT_TRUE(lone);
    EXPECT_STREQ(lone.root()->value, "");
    XmlDoc trailing = parse("lead<a>v</a>trail");
    ASSERT_TRUE(trailing);
    EXPECT_STREQ(trailing.root()->value, "v");
}

TEST(XmlSyntax, ByteFFEndsTheInput) {
    XmlDoc doc = parse("<a>x\xffy</a>");
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc.root()->value, "");
    XmlDoc high = parse("<a>\xc3\xa9</a>");
    ASSERT_TRUE(high);
    EXPECT_STREQ(high.root()->value, "\xc3\xa9");
}

TEST(XmlAttributes, ReverseDocumentOrder) {
    XmlDoc doc = parse("<a x='1' y=\"2\" z=3/>");
    ASSERT_TRUE(doc);
    EXPECT_EQ(attrNames(doc.root()), (std::vector<std::string>{"z", "y", "x"}));
    EXPECT_STREQ(doc.root()->attrs->value, "3");
}

TEST(XmlAttributes, Forms) {
    XmlDoc spaced = parse("<a  x = '1'\ty\n=\r\"2\"></a>");
    ASSERT_TRUE(spaced);
    EXPECT_EQ(attrNames(spaced.root()), (std::vector<std::string>{"y", "x"}));
    XmlDoc quotedName = parse("<a 'q r'='v'/>");
    ASSERT_TRUE(quotedName);
    EXPECT_STREQ(quotedName.root()->attrs->name, "q r'");
    XmlDoc empty = parse("<a k=''/>");
    ASSERT_TRUE(empty);
    EXPECT_STREQ(empty.root()->attrs->value, "");
    XmlDoc glued = parse("<a x='1'y='2'/>");
    ASSERT_TRUE(glued);
    EXPECT_EQ(attrNames(glued.root()), (std::vector<std::string>{"y", "x"}));
    XmlDoc question = parse("<a k=v ?><b/></a>");  // "?>" keeps the element open
    ASSERT_TRUE(question);
    EXPECT_STREQ(question.root()->firstChild->name, "b");
}

TEST(XmlAttributes, Malformed) {
    EXPECT_FALSE(parse("<a x/>"));
    EXPECT_FALSE(parse("<a x y='1'/>"));
    EXPECT_FALSE(parse("<a x='1/>"));
    EXPECT_FALSE(parse("<a x='1' <b/>"));
    EXPECT_FALSE(parse("<a x='1' / >"));
    EXPECT_FALSE(parse("<a/ >"));
    EXPECT_FALSE(parse("<a x=1"));
    EXPECT_FALSE(parse("<a x="));
}

TEST(XmlFilter, KeepsOnlyDeviceDescriptionElements) {
    XmlDoc doc = parse("<root><foo>text <device/> </foo><device/></root>", 0);
    ASSERT_TRUE(doc);
    EXPECT_EQ(childNames(doc.root()), (std::vector<std::string>{"device"}));
    EXPECT_STREQ(doc.root()->value, "");

    XmlDoc full = parse(
        "<root><URLBase>u</URLBase><device><deviceType>t</deviceType>"
        "<friendlyName>f</friendlyName><serviceList><service>"
        "<serviceType>s</serviceType><serviceId>i</serviceId><SCPDURL>p</SCPDURL>"
        "<controlURL>c</controlURL><eventSubURL>e</eventSubURL></service></serviceList>"
        "<deviceList></deviceList><presentationURL>x</presentationURL></device></root>",
        0);
    ASSERT_TRUE(full);
    XmlNode *device = strNodeSearch(full.root(), full.root(), "device");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(childNames(device), (std::vector<std::string>{"deviceType", "serviceList", "deviceList",
                                                            "presentationURL"}));
    XmlNode *service = strNodeSearch(device, device, "service");
    service = strNodeSearch(service, device, "service");
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(childNames(service), (std::vector<std::string>{"serviceType", "serviceId", "SCPDURL",
                                                             "controlURL", "eventSubURL"}));
}

TEST(XmlFilter, NamesCompareOnEightCharacters) {
    XmlDoc doc = parse("<root><deviceLiX/><presentaXYZ/><dev>d</dev><devices></devices></root>", 0);
    ASSERT_TRUE(doc);
    EXPECT_EQ(childNames(doc.root()), (std::vector<std::string>{"deviceLiX", "presentaXYZ"}));
}

TEST(XmlFilter, SkippingScansForTheNameAndRestartsOnMismatch) {
    XmlDoc doc = parse("<root><abc>ababc</abc><device/></root>", 0);
    ASSERT_TRUE(doc);
    EXPECT_EQ(childNames(doc.root()), (std::vector<std::string>{"device"}));
    // An empty skipped element has no later occurrence of its name to stop at.
    EXPECT_FALSE(parse("<root><icon/><device/></root>", 0));
    EXPECT_FALSE(parse("<root><foo>", 0));
    EXPECT_FALSE(parse("<foo/>", 0));  // nothing kept
    EXPECT_FALSE(parse("<root/><foo></foo>", 0));
}

TEST(XmlPool, RetriesWithLargerPools) {
    struct Case {
        int elements;
        int exhausted;  // attempts that ran out of elements
    };
    for (Case c : {Case{100, 0}, Case{101, 1}, Case{301, 2}, Case{850, 5}}) {
        kep_test::LogCapture log;
        XmlDoc doc = parse(flatDoc(c.elements - 1));
        ASSERT_TRUE(doc) << c.elements;
        EXPECT_EQ(countMessages(log, "xml node malloc failed.\r\n"), c.exhausted) << c.elements;
        EXPECT_EQ(childNames(doc.root()).size(), static_cast<size_t>(c.elements - 1));
    }
}

TEST(XmlPool, LargerThanTheLargestPoolFails) {
    kep_test::LogCapture log;
    EXPECT_FALSE(parse(flatDoc(850)));
    EXPECT_EQ(countMessages(log, "xml node malloc failed.\r\n"), 6);
}

TEST(XmlPool, AttributesRetryToo) {
    std::string s = "<a";
    for (int i = 0; i < 301; i++) s += " a" + std::to_string(i) + "=v";
    kep_test::LogCapture log;
    XmlDoc doc = parse(s + "/>");
    ASSERT_TRUE(doc);
    EXPECT_EQ(attrNames(doc.root()).size(), 301u);
    EXPECT_EQ(countMessages(log, "xml attribute node malloc failed.\r\n"), 1);
}

TEST(XmlPool, DeepNestingParsesAndReleases) {
    std::string s;
    for (int i = 0; i < 850; i++) s += "<d>";
    for (int i = 0; i < 850; i++) s += "</d>";
    XmlDoc doc = parse(s);
    ASSERT_TRUE(doc);
    int depth = 0;
    for (XmlNode *n = doc.root(); n; n = n->firstChild) depth++;
    EXPECT_EQ(depth, 850);
    EXPECT_FALSE(parse(s.substr(3) + "<d>"));  // deep and malformed
}

TEST(XmlPool, NodeLimitIsLogged) {
    kep::XmlParseCtx ctx;
    memset(&ctx, 0, sizeof ctx);
    ASSERT_EQ(kep::xmlMemPoolInit(&ctx.pool, 1), 0);
    kep_test::LogCapture log;
    ctx.count = kep::kXmlMaxNodes;
    EXPECT_EQ(kep::mxmlParseStartElt(nullptr, "a", &ctx), nullptr);
    EXPECT_EQ(countMessages(log, "Xml library support max 900 nodes.\r\n"), 1);
    ctx.count = 0;
    XmlNode *a = kep::mxmlParseStartElt(nullptr, "a", &ctx);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(kep::mxmlParseStartElt(a, "", &ctx), nullptr);
    EXPECT_EQ(kep::mxmlParseStartElt(a, "b", &ctx), nullptr);
    EXPECT_EQ(countMessages(log, "xml node malloc failed.\r\n"), 1);
    kep::xmlDocRelease(&ctx, a);
}

// Fails the allocation numbered failAt (from 1) of the parser.
int gAllocs;
int gFailAt;
void *failingAlloc(size_t size) { return ++gAllocs == gFailAt ? nullptr : malloc(size); }

class XmlAllocFault : public ::testing::Test {
protected:
    void SetUp() override { kep::xmlAlloc = failingAlloc; }
    void TearDown() override { kep::xmlAlloc = malloc; }
};

TEST_F(XmlAllocFault, EveryAllocationFailureReturnsNullWithoutLeaks) {
    // The document needs the second pool: context, two blocks, two more blocks.
    const std::string text = flatDoc(150);
    for (gFailAt = 1;; gFailAt++) {
        gAllocs = 0;
        XmlDoc doc = parse(text);
        if (gAllocs < gFailAt) {
            EXPECT_TRUE(doc);
            EXPECT_EQ(gFailAt, 6);
            break;
        }
        EXPECT_FALSE(doc) << gFailAt;
    }
}

TEST_F(XmlAllocFault, PoolBlockFailuresAreLogged) {
    kep_test::LogCapture log;
    gAllocs = 0;
    gFailAt = 2;
    EXPECT_FALSE(parse("<a/>"));
    const int nodeBytes = static_cast<int>(100 * sizeof(XmlNode));
    const int attrBytes = static_cast<int>(300 * sizeof(XmlAttr));
    EXPECT_TRUE(log.contains("xmlMemPoolInit malloc element mem size " + std::to_string(nodeBytes) +
                             " failed.\r\n"));
    gAllocs = 0;
    gFailAt = 3;
    EXPECT_FALSE(parse("<a/>"));
    EXPECT_TRUE(log.contains("xmlMemPoolInit malloc attribute mem size " +
                             std::to_string(attrBytes) + " failed.\r\n"));
    EXPECT_FALSE(log.contains("parse xml file failed."));
}

// A temporary file holding text, opened for reading.
class TempFile {
public:
    explicit TempFile(const std::string &text) {
        char path[] = "/tmp/kep_xml_XXXXXX";
        fd_ = mkstemp(path);
        unlink(path);
        if (fd_ >= 0 && write(fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~TempFile() {
        if (fd_ >= 0) close(fd_);
    }
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

// The read end of a pipe whose write end already holds text and is closed.
int pipeWith(const std::string &text) {
    int p[2];
    if (pipe(p) != 0) return -1;
    if (write(p[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        close(p[0]);
        p[0] = -1;
    }
    close(p[1]);
    return p[0];
}

TEST(XmlFd, ParsesAFileFromItsStartOnEveryAttempt) {
    TempFile file(flatDoc(300));  // left positioned at its end
    ASSERT_GE(file.fd(), 0);
    XmlDoc doc(fdXmlParse(file.fd(), 1));
    ASSERT_TRUE(doc);
    EXPECT_EQ(childNames(doc.root()).size(), 300u);

    TempFile model(kModel);
    XmlDoc m(fdXmlParse(model.fd(), 0));  // nothing of the model is a device element
    EXPECT_FALSE(m);
}

TEST(XmlFd, ParsesAPipeOnTheFirstAttemptOnly) {
    int small = pipeWith(kModel);
    ASSERT_GE(small, 0);
    XmlDoc doc(fdXmlParse(small, 1));
    close(small);
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc.root()->name, "model");

    // A pipe cannot rewind: once the first pool is exhausted, the rest of the
    // document is all the later attempts see.
    int big = pipeWith(flatDoc(150));
    ASSERT_GE(big, 0);
    kep_test::LogCapture log;
    EXPECT_EQ(fdXmlParse(big, 1), nullptr);
    close(big);
    EXPECT_EQ(countMessages(log, "parse xml file failed.\r\n"), 1);
}

TEST(XmlFd, BadDescriptors) {
    kep_test::LogCapture log;
    EXPECT_EQ(fdXmlParse(-1, 1), nullptr);
    EXPECT_FALSE(log.contains("parse xml file failed."));
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    close(p[1]);
    EXPECT_EQ(fdXmlParse(p[0], 1), nullptr);  // empty input
    close(p[0]);
    EXPECT_EQ(countMessages(log, "parse xml file failed.\r\n"), 1);
    EXPECT_EQ(strXmlParse(nullptr, 1), nullptr);
}

TEST(XmlWalk, SearchStartsAfterTheStartAndStaysUnderTop) {
    XmlDoc doc = parse("<module><a><moduleX/></a><module2/></module>");
    ASSERT_TRUE(doc);
    XmlNode *top = doc.root();
    XmlNode *first = strNodeSearch(top, top, "module");
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first->name, "moduleX");
    XmlNode *second = strNodeSearch(first, top, "module");
    ASSERT_NE(second, nullptr);
    EXPECT_STREQ(second->name, "module2");
    EXPECT_EQ(strNodeSearch(second, top, "module"), nullptr);
    XmlNode *a = top->firstChild;
    EXPECT_EQ(strNodeSearch(a, a, "module2"), nullptr);  // bounded by a
    EXPECT_EQ(strNodeSearch(top, top, ""), nullptr);
    EXPECT_EQ(strNodeSearch(nullptr, top, "a"), nullptr);
    EXPECT_EQ(strNodeSearch(top, nullptr, "a"), nullptr);
    EXPECT_EQ(strNodeSearch(top, top, nullptr), nullptr);
}

TEST(XmlWalk, PrintLogsNodesThenAttributesInDocumentOrder) {
    XmlDoc doc = parse("<a x='1' y='2'>t<b><c/></b><d z='3'/></a>");
    ASSERT_TRUE(doc);
    kep_test::LogCapture log;
    printfXmlTree(doc.root()->firstChild);  // b and its subtree only
    printfXmlTree(nullptr);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                  "Node.name = b, Node.value = .\r\n\r\n",
                                  "Node.name = c, Node.value = .\r\n\r\n",
                              }));
    log.clear();
    printfXmlTree(doc.root());
    EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                  "Node.name = a, Node.value = t.\r\n\r\n",
                                  "Attribute Node.name = y, Node.value = 2.\r\n\r\n",
                                  "Attribute Node.name = x, Node.value = 1.\r\n\r\n",
                                  "Node.name = b, Node.value = .\r\n\r\n",
                                  "Node.name = c, Node.value = .\r\n\r\n",
                                  "Node.name = d, Node.value = .\r\n\r\n",
                                  "Attribute Node.name = z, Node.value = 3.\r\n\r\n",
                              }));
}

TEST(XmlWalk, StripNamespaces) {
    XmlDoc doc = parse("<s:a s:k='v'><s:t:b/><c/></s:a>");
    ASSERT_TRUE(doc);
    XmlNode *b = doc.root()->firstChild;
    mxmlNodeStripNs(b);
    EXPECT_STREQ(doc.root()->name, "s:a");
    EXPECT_STREQ(b->name, "t:b");
    mxmlNodeStripNs(doc.root());
    mxmlNodeStripNs(nullptr);
    EXPECT_STREQ(doc.root()->name, "a");
    EXPECT_STREQ(b->name, "b");
    EXPECT_STREQ(doc.root()->lastChild->name, "c");
    EXPECT_STREQ(doc.root()->attrs->name, "s:k");
}

TEST(XmlEncode, EscapesWithExactRoom) {
    char out[64];
    EXPECT_EQ(mxmlEncodeEleNode("a<b", 3, out, 7), 0);
    EXPECT_STREQ(out, "a&lt;b");
    kep_test::LogCapture log;
    EXPECT_EQ(mxmlEncodeEleNode("a<b", 3, out, 6), -1);
    EXPECT_EQ(countMessages(log, "output string don't have enough space!\r\n"), 1);
    log.clear();
    EXPECT_EQ(mxmlEncodeEleNode("a<", 2, out, 5), -1);  // an entity that does not fit: silent
    EXPECT_TRUE(log.messages().empty());

    EXPECT_EQ(mxmlEncodeEleNode("&'><\"x", 6, out, sizeof out), 0);
    EXPECT_STREQ(out, "&amp;&apos;&gt;&lt;&quot;x");
    EXPECT_EQ(mxmlEncodeEleNode("abc", 2, out, 3), 0);  // length, not the zero, bounds it
    EXPECT_STREQ(out, "ab");
    EXPECT_EQ(mxmlEncodeEleNode("", 0, out, 1), 0);
    EXPECT_STREQ(out, "");
}

TEST(XmlEncode, RejectsBadArguments) {
    char out[8] = "keep";
    EXPECT_EQ(mxmlEncodeEleNode(nullptr, 1, out, 8), -1);
    EXPECT_EQ(mxmlEncodeEleNode("a", 1, nullptr, 8), -1);
    EXPECT_EQ(mxmlEncodeEleNode("a", -1, out, 8), -1);
    EXPECT_EQ(mxmlEncodeEleNode("a", 1, out, -1), -1);
    EXPECT_EQ(mxmlEncodeEleNode("", 0, out, 0), -1);
    EXPECT_STREQ(out, "keep");
}

TEST(XmlDocGuard, ReleasesAndHandsOver) {
    mxmlTreeDelete(nullptr);
    XmlDoc doc = parse("<a><b/></a>");
    ASSERT_TRUE(doc);
    XmlDoc moved(std::move(doc));
    EXPECT_FALSE(doc);
    ASSERT_TRUE(moved);
    XmlNode **raw = moved.release();
    EXPECT_FALSE(moved);
    EXPECT_STREQ((*raw)->firstChild->name, "b");
    mxmlTreeDelete(raw);
    EXPECT_EQ(XmlDoc().root(), nullptr);
}

}  // namespace
