// The pooled XML parser: limits at their boundaries, malformed input, pool retries,
// entities, the device-description filter, descriptor input, the tree walkers and
// release on every failure path.
#include <gtest/gtest.h>
#include <limits.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kep_xml.h"
#include "log_capture.h"
#include "xml/xml_internal.h"

namespace {

using kep::XmlDoc;

XmlDoc parse(const std::string &text, int keepAll = 1) {
    return XmlDoc(strXmlParse(text.c_str(), keepAll));
}

std::string rep(char c, size_t n) {
    return std::string(n, c);
}

std::vector<std::string> childNames(const XmlNode *n) {
    std::vector<std::string> out;
    for (const XmlNode *c = n->firstChild; c; c = c->next) out.push_back(c->name);
    return out;
}

// "name[value] attr=value... (child,...)" with attributes in list order.
std::string describe(const XmlNode *n, bool withValue = true) {
    std::string s = std::string(n->name) + "[" + (withValue ? n->value : "") + "]";
    for (const XmlAttr *a = n->attrs; a; a = a->next) s += std::string(" ") + a->name + "=" + a->value;
    std::string sep = " (";
    for (const std::string &c : childNames(n)) s += std::exchange(sep, ",") + c;
    return n->firstChild ? s + ")" : s;
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
    "  </module>\n"
    "  <module name=\"lan\"><tables name=\"lan_cfg\"/></module>\n"
    "</model>\n";

TEST(XmlParse, ModelDescriptionShape) {
    XmlDoc doc = parse(kModel);
    ASSERT_TRUE(doc);
    XmlNode *root = doc.root();
    EXPECT_EQ(describe(root, false), "model[] (module,module)");
    EXPECT_EQ(root->parent, nullptr);
    XmlNode *wan = strNodeSearch(root, root, "module");
    ASSERT_NE(wan, nullptr);
    EXPECT_EQ(describe(wan, false), "module[] name=wan (table,table,service)");
    XmlNode *cfg = strNodeSearch(wan, wan, "table");
    ASSERT_NE(cfg, nullptr);
    EXPECT_EQ(describe(cfg, false), "table[] attribute=config name=wan_cfg (section,section)");
    XmlNode *s2 = strNodeSearch(strNodeSearch(cfg, cfg, "section"), cfg, "section");
    ASSERT_NE(s2, nullptr);
    EXPECT_STREQ(s2->attrs->value, "wan_cfg_2");
    EXPECT_EQ(strNodeSearch(s2, cfg, "section"), nullptr);
    XmlNode *lan = strNodeSearch(wan, root, "module");
    ASSERT_EQ(lan, root->lastChild);
    EXPECT_TRUE(lan->prev == wan && wan->next == lan && lan->parent == root);
    EXPECT_STREQ(strNodeSearch(lan, lan, "table")->name, "tables");
    EXPECT_EQ(strNodeSearch(lan, root, "module"), nullptr);
}

TEST(XmlParse, AcceptedInputs) {
    const std::string n31 = rep('n', 31), k15 = rep('k', 15), v31 = rep('v', 31);
    struct Case {
        std::string in;
        std::string want;  // describe() of the top element; "*": only that it parses
        int keepAll = 1;
    } cases[] = {
        // 63 characters of text fit; names are cut to 31, attribute names to 15 and
        // attribute values to 31, however long up to the 63-character buffer.
        {"<a>" + rep('t', 63) + "</a>", "a[" + rep('t', 63) + "]"},
        {"<" + rep('n', 32) + "/>", n31 + "[]"},
        {"<" + rep('n', 40) + " x='1'>", n31 + "[] x=1"},
        {"<" + rep('n', 63) + "/>", n31 + "[]"},
        {"<a " + rep('k', 16) + "='v'/>", "a[] " + k15 + "=v"},
        {"<a " + rep('k', 63) + "='v'/>", "a[] " + k15 + "=v"},
        {"<a k=\"" + rep('v', 32) + "\"/>", "a[] k=" + v31},
        {"<a k=" + rep('v', 40) + "/>", "a[] k=" + v31},
        {"<a k='" + rep('v', 63) + "'/>", "a[] k=" + v31},
        // "!--" and the closing "--" of a comment count against the buffer.
        {"<!--" + rep('c', 58) + "--><a/>", "a[]"},
        {"<?" + rep('p', 61) + "?><a/>", "a[]"},
        {"<a><![CDATA[" + rep('d', 61) + "]]></a>", "a[" + rep('d', 61) + "]"},
        {"<a> \r\n\t<b/>x<c/>y</a>", "a[xy] (b,c)"},  // blank text replaced, other text appended
        {"<a>" + rep('x', 40) + "<b/>" + rep('y', 40) + "</a>", "a[" + rep('x', 40) + rep('y', 23) + "] (b)"},
        {"<a>x &lt; y&amp;&apos;&gt;&quot;&#65;&#x41;&ampx;</a>", "a[x < y&'>\"AA&]"},
        {"<a>b&#X41;c</a>", "a[b]"},  // only a lower-case x is hexadecimal: "#X41" is byte 0
        {"<a>&#x4a;&#x4A;&#x6F;&#x6f;&#x39;</a>", "a[JJoo9]"},  // digits of either case
        {"<a>&#x4AG;&#x4ag;</a>", "a[JJ]"},                     // the digits end before "g"
        {"<a>&#321;</a>", "a[A]"},                              // the low eight bits
        {"<a>&#100;&#x30;</a>", "a[d0]"},                       // zeros among the digits
        {"<a&#x62; k&amp;='&lt;v&gt;' u=&quot;/>", "ab[] u=\" k&=<v>"},
        {"<a>&amp" + rep('z', 28) + ";</a>", "*"},  // 31 entity-name characters
        {"<a>  <![CDATA[<b>&amp;]]]></a>", "a[<b>&amp;]]"},
        {"<a><![CDATA[]]></a>", "a[]"},
        {"<?xml version=\"1.0\"?>\n<!DOCTYPE a>\n<!-- c -> - <x> -->"
         "<a><!-- inner --><?pi data?><!x></a><!-- after -->",
         "a[]"},
        {"<!--><a/>", "a[]"},  // the marker's own dashes close it
        {"<ab></a>", "ab[]"},  // only the closing name is compared
        {"<ab></>", "ab[]"},
        {"<a></a >", "a[]"},
        {"<a>dropped text", "a[]"},
        {"lead<a>v</a>trail", "a[v]"},
        {"<a>x\xffy</a>", "a[]"},  // byte FF ends the input
        {"<a>\xc3\xa9</a>", "a[\xc3\xa9]"},
        {"<a x='1' y=\"2\" z=3/>", "a[] z=3 y=2 x=1"},  // reverse document order
        {"<a k@='v'/>", "a[] k@=v"},                    // a name ends only at a blank, "=", "/", ">" or "?"
        {"<a  x = '1'\ty\n=\r\"2\"></a>", "a[] y=2 x=1"},
        {"<a 'q r'='v'/>", "a[] q r'=v"},
        {"<a k=''/>", "a[] k="},
        {"<a x='1'y='2'/>", "a[] y=2 x=1"},
        {"<a k=v ?><b/></a>", "a[] k=v (b)"},  // "?>" keeps the element open
        // The device-description filter keeps only its own names, compared on eight
        // characters; a skipped element is skipped by scanning for its name.
        {"<root><foo>text <device/> </foo><device/></root>", "root[] (device)", 0},
        {"<root><deviceLiX/><presentaXYZ/><dev>d</dev><devices></devices></root>",
         "root[] (deviceLiX,presentaXYZ)", 0},
        {"<root><abc>ababc</abc><device/></root>", "root[] (device)", 0},
        // The name is seen in "ababc" (the mismatching "a" starts it again), so the skip
        // ends at the ">" after it, not at a closing tag.
        {"<root><abc>ababc><device/></root>", "root[] (device)", 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.in);
        XmlDoc doc = parse(c.in, c.keepAll);
        ASSERT_TRUE(doc);
        if (c.want != "*") {
            EXPECT_EQ(describe(doc.root()), c.want);
        }
    }
}

TEST(XmlParse, RejectedInputs) {
    struct Case {
        std::string in;
        int keepAll = 1;
    } cases[] = {
        {"<a>" + rep('t', 64) + "</a>"},
        {"<" + rep('n', 64) + "/>"},
        {"<a " + rep('k', 64) + "='v'/>"},
        {"<a k='" + rep('v', 64) + "'/>"},
        {"<a k=" + rep('v', 64) + "/>"},
        {"<!--" + rep('c', 59) + "--><a/>"},
        {"<a><![CDATA[" + rep('d', 62) + "]]></a>"},
        {"<?" + rep('p', 62) + "?><a/>"},
        {"<a>&amp" + rep('z', 29) + ";</a>"},
        {"<" + rep('n', 32) + "></" + rep('n', 32) + ">"},  // a cut name misses its closing tag
        {"<a>&unknown;</a>"},
        {"<a>&;</a>"},
        {"<a>&amp</a>"},
        {"<a>&am p;</a>"},
        {"<a>&amp"},
        {"<a k='&bogus;'/>"},
        {"<a><![CDATA[x]]</a>"},
        {"<a/><!-- open"},
        {"<a/><?pi"},
        {"<a/><!DOCTYPE"},
        {"<a/><!DOCTYPE html"},
        {"<a></ab>"},
        {"<a></b>"},
        {"</a>"},
        {"<a></a></a>"},
        {"<a></a"},
        {"<a></a "},  // cut inside a closing tag, past its name
        {""},
        {"just text"},
        {"<a/><b/>"},
        {"<a></a><b></b>"},
        {"<a><b></b>"},
        {"<a><b>"},
        {"<a"},
        {"<a><<b/></a>"},
        {"< a/>"},
        {"<a x/>"},
        {"<a x>='1'/>"},  // ">" ends a name, which then has no value
        {"<a x y='1'/>"},
        {"<a x='1/>"},
        {"<a x='1' <b/>"},
        {"<a <b='1'/>"},  // no attribute name begins a tag
        {"<a x='1' / >"},
        {"<a k=v=w/>"},  // an unquoted value ends at "="
        {"<a>&#[;</a>"},
        {"<a/ >"},
        {"<a x=1"},
        {"<a x="},
        // An empty skipped element has no later occurrence of its name to stop at.
        {"<root><icon/><device/></root>", 0},
        {"<root><foo>", 0},
        {"<root><foo></foo", 0},
        {"<foo/>", 0},
        {"<root/><foo></foo>", 0},
    };
    for (const Case &c : cases) EXPECT_FALSE(parse(c.in, c.keepAll)) << c.in;
    EXPECT_EQ(strXmlParse(nullptr, 1), nullptr);
}

TEST(XmlFilter, KeepsTheDeviceAndServiceMembers) {
    XmlDoc doc = parse(
        "<root><URLBase>u</URLBase><device><deviceType>t</deviceType>"
        "<friendlyName>f</friendlyName><serviceList><service>"
        "<serviceType>s</serviceType><serviceId>i</serviceId><SCPDURL>p</SCPDURL>"
        "<controlURL>c</controlURL><eventSubURL>e</eventSubURL></service></serviceList>"
        "<deviceList></deviceList><presentationURL>x</presentationURL></device></root>",
        0);
    ASSERT_TRUE(doc);
    XmlNode *device = strNodeSearch(doc.root(), doc.root(), "device");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(describe(device), "device[] (deviceType,serviceList,deviceList,presentationURL)");
    XmlNode *service = strNodeSearch(strNodeSearch(device, device, "service"), device, "service");
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(describe(service), "service[] (serviceType,serviceId,SCPDURL,controlURL,eventSubURL)");
}

TEST(XmlPool, RetriesWithLargerPoolsUpToTheLargest) {
    // Each pool size of the schedule and one past it; the largest holds 850 elements.
    for (int elements : {100, 101, 301, 850, 851}) {
        SCOPED_TRACE(elements);
        XmlDoc doc = parse(flatDoc(elements - 1));
        ASSERT_EQ(static_cast<bool>(doc), elements <= 850);
        if (doc) {
            EXPECT_EQ(childNames(doc.root()).size(), static_cast<size_t>(elements - 1));
        }
    }
    // The first pool holds 300 attributes: the last fills it exactly, or the next
    // needs the second pool. Each is in the element once.
    for (int attributes : {300, 301}) {
        SCOPED_TRACE(attributes);
        std::string s = "<a";
        for (int i = 0; i < attributes; i++) s += " a" + std::to_string(i) + "=v";
        XmlDoc doc = parse(s + "/>");
        ASSERT_TRUE(doc);
        std::set<std::string> names;
        int count = 0;
        for (const XmlAttr *a = doc.root()->attrs; a; a = a->next, count++) names.insert(a->name);
        EXPECT_EQ(count, attributes);
        EXPECT_EQ(names.size(), static_cast<size_t>(attributes));
    }
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

TEST(XmlPool, NodeLimitAndExhaustedPoolGiveNoElement) {
    kep::XmlParseCtx ctx;
    memset(&ctx, 0, sizeof ctx);
    EXPECT_EQ(kep::xmlMemPoolInit(&ctx.pool, 0), 0);  // an empty pool
    EXPECT_EQ(kep::xmlMemPoolInit(&ctx.pool, -1), -1);
    EXPECT_EQ(kep::xmlMemPoolInit(nullptr, 1), -1);
    EXPECT_EQ(kep::xmlMemPoolInit(&ctx.pool, INT_MAX), -1);  // more than can be counted
    EXPECT_EQ(kep::mxmlParseStartElt(nullptr, "a", &ctx), nullptr);
    ASSERT_EQ(kep::xmlMemPoolInit(&ctx.pool, 2), 0);
    ctx.count = kep::kXmlMaxNodes - 1;  // one element left under the limit, two in the pool
    XmlNode *a = kep::mxmlParseStartElt(nullptr, "a", &ctx);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(kep::mxmlParseStartElt(a, "b", &ctx), nullptr);
    ctx.count = 0;
    EXPECT_EQ(kep::mxmlParseStartElt(a, "", &ctx), nullptr);
    ASSERT_NE(kep::mxmlParseStartElt(a, "b", &ctx), nullptr);
    EXPECT_EQ(kep::mxmlParseStartElt(a, "c", &ctx), nullptr);  // the pool is used up
    kep::xmlDocRelease(&ctx, a);
}

// A subtree given back to the pool: its records come out again before any record the
// pool never handed out, and cleared.
TEST(XmlPool, RecordsGivenBackAreTakenFirst) {
    kep::XmlParseCtx ctx;
    memset(&ctx, 0, sizeof ctx);
    ASSERT_EQ(kep::xmlMemPoolInit(&ctx.pool, 2), 0);
    XmlNode *a = kep::mxmlParseStartElt(nullptr, "a", &ctx);
    XmlNode *b = kep::mxmlParseStartElt(a, "b", &ctx);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(b, a + 1);  // address order
    XmlAttr *x = kep::mxmlAddAttrib(b, "x", "1", &ctx);
    ASSERT_NE(x, nullptr);
    EXPECT_EQ(kep::mxmlParseStartElt(a, "c", &ctx), nullptr);  // both taken

    kep::xmlNodeRelease(&ctx.pool, nullptr);  // nothing to give back
    kep::xmlNodeRelease(nullptr, b);
    EXPECT_EQ(a->firstChild, b);
    kep::xmlNodeRelease(&ctx.pool, b);
    EXPECT_EQ(a->firstChild, nullptr);
    EXPECT_EQ(a->lastChild, nullptr);
    XmlNode *c = kep::mxmlParseStartElt(a, "c", &ctx);
    EXPECT_EQ(c, b);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->attrs, nullptr);
    EXPECT_EQ(a->firstChild, c);
    EXPECT_EQ(kep::mxmlAddAttrib(c, "y", "2", &ctx), x);
    EXPECT_EQ(kep::mxmlAddAttrib(c, "z", "3", &ctx), x + 1);
    EXPECT_STREQ(c->attrs->next->name, "y");
    kep::xmlDocRelease(&ctx, a);

    // A whole subtree comes back, every node of it, and its parent's other children
    // stay.
    memset(&ctx, 0, sizeof ctx);
    ASSERT_EQ(kep::xmlMemPoolInit(&ctx.pool, 6), 0);
    XmlNode *root = kep::mxmlParseStartElt(nullptr, "r", &ctx);
    XmlNode *e = kep::mxmlParseStartElt(root, "e", &ctx);
    XmlNode *kept = kep::mxmlParseStartElt(root, "k", &ctx);
    XmlNode *f = kep::mxmlParseStartElt(e, "f", &ctx);
    XmlNode *g = kep::mxmlParseStartElt(e, "g", &ctx);
    ASSERT_TRUE(root && e && kept && f && g);
    ASSERT_NE(kep::mxmlParseStartElt(g, "h", &ctx), nullptr);
    ASSERT_NE(kep::mxmlAddAttrib(f, "x", "1", &ctx), nullptr);
    ASSERT_EQ(kep::mxmlParseStartElt(root, "full", &ctx), nullptr);
    kep::xmlNodeRelease(&ctx.pool, e);
    EXPECT_EQ(root->firstChild, kept);
    EXPECT_EQ(root->lastChild, kept);
    EXPECT_EQ(kept->prev, nullptr);
    for (int i = 0; i < 4; i++) EXPECT_NE(kep::mxmlParseStartElt(kept, "n", &ctx), nullptr) << i;
    EXPECT_EQ(kep::mxmlParseStartElt(kept, "n", &ctx), nullptr);
    kep::xmlDocRelease(&ctx, root);
}

// Whether each page of the page-aligned range holding p .. p + bytes is resident.
std::vector<bool> residency(const void *p, size_t bytes) {
    const uintptr_t page = static_cast<uintptr_t>(getpagesize());
    const uintptr_t start = reinterpret_cast<uintptr_t>(p) & ~(page - 1);
    const size_t pages = (reinterpret_cast<uintptr_t>(p) + bytes - start + page - 1) / page;
    std::vector<unsigned char> vec(pages);
    EXPECT_EQ(mincore(reinterpret_cast<void *>(start), pages * page, vec.data()), 0);
    std::vector<bool> out;
    for (unsigned char v : vec) out.push_back(v & 1);
    return out;
}

// Drops the whole pages inside p .. p + bytes (their bytes were never written).
void dropPages(void *p, size_t bytes) {
    const uintptr_t page = static_cast<uintptr_t>(getpagesize());
    const uintptr_t start = (reinterpret_cast<uintptr_t>(p) + page - 1) & ~(page - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(p) + bytes) & ~(page - 1);
    if (end > start) madvise(reinterpret_cast<void *>(start), end - start, MADV_DONTNEED);
}

// Whether this kernel faults pages in on advice (not every kernel or emulator does).
bool kernelPrefaults() {
#ifdef MADV_POPULATE_WRITE
    const size_t page = static_cast<size_t>(getpagesize());
    void *p = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return false;
    unsigned char v = 0;
    const bool yes = madvise(p, page, MADV_POPULATE_WRITE) == 0 && mincore(p, page, &v) == 0 && (v & 1);
    munmap(p, page);
    return yes;
#else
    return false;
#endif
}

// Pages of block (bytes long) holding its first `in` bytes are resident, and the
// pages wholly past them are not (the block's last page may hold a neighbour's bytes).
template <typename T>
void expectResidentUpTo(const T *block, size_t bytes, size_t in) {
    const uintptr_t page = static_cast<uintptr_t>(getpagesize());
    const uintptr_t first = reinterpret_cast<uintptr_t>(block) & ~(page - 1);
    const size_t inPages = (reinterpret_cast<uintptr_t>(block) + in - first + page - 1) / page;
    const std::vector<bool> resident = residency(block, bytes);
    for (size_t i = 0; i < resident.size(); i++) {
        if (i < inPages) {
            EXPECT_TRUE(resident[i]) << "page " << i;
        } else if (i + 1 < resident.size()) {
            EXPECT_FALSE(resident[i]) << "page " << i;
        }
    }
}

// Pool blocks placed 1 MiB apart in a mapping of their own, each 16 bytes into a page
// as malloc places large blocks, with pages nobody touches around them: whatever the
// advice makes present outside a block shows.
constexpr size_t kArenaGap = 1 << 20;
char *gArena;
int gArenaBlocks;
void *arenaAlloc(size_t size) {
    if (size > kArenaGap / 2 || gArenaBlocks == 3) return nullptr;
    return gArena + kArenaGap * static_cast<size_t>(++gArenaBlocks) + 16;
}

// No page of the mapping is resident but those of the blocks' own pages.
void expectNothingAroundResident(const void *block, size_t bytes) {
    const uintptr_t page = static_cast<uintptr_t>(getpagesize());
    const uintptr_t first = reinterpret_cast<uintptr_t>(block) & ~(page - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + bytes + page - 1) & ~(page - 1);
    const std::vector<bool> before =
        residency(reinterpret_cast<void *>(first - kArenaGap / 2), kArenaGap / 2);
    const std::vector<bool> after = residency(reinterpret_cast<void *>(end), kArenaGap / 4);
    for (size_t i = 0; i < before.size(); i++)
        EXPECT_FALSE(before[i]) << "page " << before.size() - i << " before";
    for (size_t i = 0; i < after.size(); i++) EXPECT_FALSE(after[i]) << "page " << i << " after";
}

TEST(XmlPool, LargeBlocksAreFaultedInAChunkAheadOfUse) {
    if (!kernelPrefaults()) GTEST_SKIP() << "this kernel does not fault pages in on advice";
    constexpr size_t kChunk = 64 * 1024;
    gArena = static_cast<char *>(
        mmap(nullptr, 4 * kArenaGap, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(gArena, MAP_FAILED);
    gArenaBlocks = 0;
    kep::xmlAlloc = arenaAlloc;
    kep::XmlParseCtx ctx;
    memset(&ctx, 0, sizeof ctx);
    const int made = kep::xmlMemPoolInit(&ctx.pool, 850);
    kep::xmlAlloc = malloc;
    ASSERT_EQ(made, 0);
    XmlNode *nodes = ctx.pool.nodeBlock;
    XmlAttr *attrs = ctx.pool.attrBlock;
    const size_t nodeBytes = 850 * sizeof(XmlNode), attrBytes = 3 * 850 * sizeof(XmlAttr);

    // The first record of each block brings in its first chunk, and only that.
    XmlNode *top = kep::mxmlParseStartElt(nullptr, "top", &ctx);
    ASSERT_EQ(top, nodes);
    ASSERT_EQ(kep::mxmlAddAttrib(top, "a", "1", &ctx), attrs);
    const size_t nodeChunk = kChunk / sizeof(XmlNode) * sizeof(XmlNode);
    expectResidentUpTo(nodes, nodeBytes, nodeChunk);
    expectResidentUpTo(attrs, attrBytes, kChunk / sizeof(XmlAttr) * sizeof(XmlAttr));

    // The next chunk comes in with its first record; the block's end cuts it.
    for (size_t i = 1; i < kChunk / sizeof(XmlNode); i++) {
        ASSERT_NE(kep::mxmlParseStartElt(top, "e", &ctx), nullptr);
    }
    expectResidentUpTo(nodes, nodeBytes, nodeChunk);
    ASSERT_NE(kep::mxmlParseStartElt(top, "e", &ctx), nullptr);
    expectResidentUpTo(nodes, nodeBytes, nodeBytes);
    expectNothingAroundResident(nodes, nodeBytes);
    expectNothingAroundResident(attrs, attrBytes);
    // The blocks are the mapping's, not malloc's.
    munmap(gArena, 4 * kArenaGap);
    memset(&ctx, 0, sizeof ctx);

    // A block under a chunk faults page by page as it is written.
    ASSERT_EQ(kep::xmlMemPoolInit(&ctx.pool, 100), 0);
    dropPages(ctx.pool.nodeBlock, 100 * sizeof(XmlNode));
    ASSERT_NE(kep::mxmlParseStartElt(nullptr, "top", &ctx), nullptr);
    expectResidentUpTo(ctx.pool.nodeBlock, 100 * sizeof(XmlNode), sizeof(XmlNode));
    kep::xmlDocRelease(&ctx, nullptr);
}

// Fails the allocation numbered failAt (from 1) of the parser. (Every allocation of a
// parse failing in turn, leaks included, is the allocation sweep's.)
int gAllocs;
int gFailAt;
void *failingAlloc(size_t size) {
    return ++gAllocs == gFailAt ? nullptr : malloc(size);
}

class XmlAllocFault : public ::testing::Test {
protected:
    void SetUp() override { kep::xmlAlloc = failingAlloc; }
    void TearDown() override { kep::xmlAlloc = malloc; }
};

TEST_F(XmlAllocFault, PoolBlockFailuresFailTheParse) {
    gAllocs = 0;
    gFailAt = 2;
    EXPECT_FALSE(parse("<a/>"));
    gAllocs = 0;
    gFailAt = 3;
    EXPECT_FALSE(parse("<a/>"));
}

// Growing the pool during a parse of text. The blocks normally have room for the
// whole schedule from the start; when they have not, a block that moves keeps the
// tree intact (every reallocation here moves), and one that cannot grow makes the
// parse start again at that size, as the plain retries would, with the same result.
int gReallocs;
int gFailRealloc;
void *movingRealloc(void *block, size_t size) {
    if (++gReallocs == gFailRealloc) return nullptr;
    void *moved = malloc(size);
    if (moved) {
        const size_t old = malloc_usable_size(block);
        memcpy(moved, block, std::min(size, old));
        memset(block, 0xA5, old);  // a pointer left aimed at the old place reads garbage
        free(block);
    }
    return moved;
}

TEST(XmlPool, GrowingMovesAndFallsBack) {
    // Every element with its attributes, in document order.
    auto everything = [](XmlNode *top) {
        std::string all;
        for (XmlNode *n = top; n; n = kep::xmlNextNode(n, top)) all += describe(n) + ";";
        return all;
    };
    std::string s = "<top t=\"r\">";
    for (int i = 0; i < 300; i++) s += "<e a=\"" + std::to_string(i) + "\" b=\"x\"><f/></e>";
    s += "</top>";
    const std::string expected = everything(XmlDoc(parse(s)).root());
    kep::xmlRealloc = movingRealloc;
    gReallocs = 0;
    gFailRealloc = 0;
    EXPECT_EQ(everything(XmlDoc(parse(s)).root()), expected);
    EXPECT_EQ(gReallocs, 0);  // the blocks had room for the whole schedule from the start

    // Without memory for that room, the first pool grows as the parse goes.
    kep::xmlAlloc = failingAlloc;
    for (int failAt : {0, 1, 2, 5}) {
        SCOPED_TRACE(failAt);
        gAllocs = 0;
        gFailAt = 2;  // the context is the first allocation, the reserved element block the second
        gReallocs = 0;
        gFailRealloc = failAt;
        kep_test::LogCapture log;
        XmlDoc doc = parse(s);
        EXPECT_FALSE(log.contains("malloc element mem")) << "a refused reserve is no failure";
        ASSERT_TRUE(doc);
        EXPECT_GE(gReallocs, failAt ? failAt : 2);
        // The context, the refused reserve and the first pool's two blocks: a pool that
        // grows never starts the parse again; one that cannot grow starts it once more
        // with a new pool of that size.
        EXPECT_EQ(gAllocs, failAt ? 6 : 4);
        EXPECT_EQ(everything(doc.root()), expected);
        EXPECT_STREQ(doc.root()->lastChild->attrs->value, "x");
        EXPECT_EQ(doc.root()->lastChild->firstChild->parent, doc.root()->lastChild);
    }
    // When growing to the largest pool fails, the parse starts again at that size.
    gAllocs = 0;
    gReallocs = 0;
    gFailRealloc = 9;  // the first of the two that grow the pool from 700 to 850
    {
        XmlDoc big = parse(flatDoc(799));
        ASSERT_TRUE(big);
        EXPECT_EQ(childNames(big.root()).size(), 799u);
        EXPECT_GE(gReallocs, 9);
    }
    // Growing never goes past the largest pool of the schedule.
    gAllocs = 0;
    gFailRealloc = 0;
    EXPECT_FALSE(parse(flatDoc(850)));
    kep::xmlAlloc = malloc;
    kep::xmlRealloc = realloc;
}

// The read end of a pipe, or an unlinked file left positioned at its end, holding text.
int inputFd(const std::string &text, bool file) {
    int p[2] = {-1, -1};
    char path[] = "/tmp/kep_xml_XXXXXX";
    if (file) {
        p[0] = p[1] = mkstemp(path);
        unlink(path);
    } else if (pipe(p) != 0) {
        return -1;
    }
    EXPECT_EQ(write(p[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    if (!file) close(p[1]);
    return p[0];
}

TEST(XmlFd, AFileIsReadFromItsStartOnEveryAttempt) {
    int fd = inputFd(flatDoc(300), true);
    XmlDoc doc(fdXmlParse(fd, 1));
    close(fd);
    ASSERT_TRUE(doc);
    EXPECT_EQ(childNames(doc.root()).size(), 300u);
    fd = inputFd(kModel, true);
    EXPECT_FALSE(XmlDoc(fdXmlParse(fd, 0)));  // nothing of the model is a device element
    close(fd);
    fd = inputFd(flatDoc(850), true);  // one element more than the largest pool holds
    EXPECT_FALSE(XmlDoc(fdXmlParse(fd, 1)));
    close(fd);
    // Descriptor 0 is a file like any other.
    const int input = dup(0);
    fd = inputFd(flatDoc(3), true);
    ASSERT_EQ(dup2(fd, 0), 0);
    close(fd);
    XmlDoc fromZero(fdXmlParse(0, 1));
    dup2(input, 0);
    close(input);
    ASSERT_TRUE(fromZero);
    EXPECT_EQ(childNames(fromZero.root()).size(), 3u);
    EXPECT_FALSE(XmlDoc(fdXmlParse(-1, 1)));
}

// Whether the thread whose stat file is at path sleeps (in its read, here).
bool waiting(const std::string &path) {
    char text[512] = "";
    FILE *f = fopen(path.c_str(), "r");
    if (!f) return false;
    const size_t n = fread(text, 1, sizeof text - 1, f);
    fclose(f);
    text[n] = 0;
    const char *end = strrchr(text, ')');  // the name in brackets may hold anything
    return end && end[1] == ' ' && end[2] == 'S';
}

TEST(XmlFd, APipeIsReadOnTheFirstAttemptOnly) {
    int fd = inputFd(kModel, false);
    XmlDoc doc(fdXmlParse(fd, 1));
    close(fd);
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc.root()->name, "model");
    // Once the first pool is exhausted, the rest of the document is all the later
    // attempts see.
    fd = inputFd(flatDoc(150), false);
    EXPECT_EQ(fdXmlParse(fd, 1), nullptr);
    close(fd);
    fd = inputFd("", false);
    EXPECT_EQ(fdXmlParse(fd, 1), nullptr);
    close(fd);
    EXPECT_EQ(fdXmlParse(-1, 1), nullptr);

    // A read a signal cuts short is made again, and the errno it left is no reason to
    // read again after the reads that follow it. The signal comes while the reader waits
    // in its read on an empty pipe, and the rest only once the handler has run, so that
    // read fails with EINTR however slow the machine.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    static std::atomic<bool> poked{false};
    poked = false;
    struct sigaction handler {
    }, was{};
    handler.sa_handler = [](int) { poked = true; };  // no SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &handler, &was), 0);
    const pthread_t reader = pthread_self();
    const std::string state = "/proc/self/task/" + std::to_string(gettid()) + "/stat";
    std::thread writer([&] {
        EXPECT_EQ(write(fds[1], "<a><b/>", 7), 7);
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!waiting(state) && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        pthread_kill(reader, SIGUSR1);
        while (!poked && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        EXPECT_TRUE(poked);
        EXPECT_EQ(write(fds[1], "<c/></a>", 8), 8);
        close(fds[1]);
    });
    XmlDoc interrupted(fdXmlParse(fds[0], 1));
    writer.join();
    close(fds[0]);
    sigaction(SIGUSR1, &was, nullptr);
    ASSERT_TRUE(interrupted);
    EXPECT_EQ(childNames(interrupted.root()), (std::vector<std::string>{"b", "c"}));
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
    EXPECT_EQ(strNodeSearch(top->firstChild, top->firstChild, "module2"), nullptr);
    EXPECT_EQ(strNodeSearch(top, top, ""), nullptr);
    EXPECT_EQ(strNodeSearch(nullptr, top, "a"), nullptr);
    EXPECT_EQ(strNodeSearch(top, nullptr, "a"), nullptr);
    EXPECT_EQ(strNodeSearch(top, top, nullptr), nullptr);
}

TEST(XmlWalk, StripNamespaces) {
    XmlDoc doc = parse("<s:a s:k='v'><s:t:b/><c/><:d/></s:a>");
    ASSERT_TRUE(doc);
    XmlNode *b = doc.root()->firstChild;
    mxmlNodeStripNs(b);
    EXPECT_STREQ(doc.root()->name, "s:a");
    EXPECT_STREQ(b->name, "t:b");
    mxmlNodeStripNs(doc.root());
    mxmlNodeStripNs(nullptr);
    EXPECT_EQ(describe(doc.root()), "a[] s:k=v (b,c,d)");
}

TEST(XmlEncode, EscapesWithExactRoom) {
    struct Case {
        const char *in;
        int len, room, ret;
        const char *out;  // null: not checked
    } cases[] = {
        {"a<b", 3, 7, 0, "a&lt;b"},
        {"a<b", 3, 6, -1, nullptr},
        {"a<", 2, 6, 0, "a&lt;"},    // one that fits with its terminator
        {"a<", 2, 5, -1, nullptr},   // an entity that does not fit
        {"a<", 2, 3, -1, nullptr},   // nor is it begun
        {"ab<", 3, 5, -1, nullptr},  // nor after more text
        {"&'><\"x", 6, 64, 0, "&amp;&apos;&gt;&lt;&quot;x"},
        {"abc", 2, 3, 0, "ab"},  // the length, not the zero, bounds it
        {"", 0, 1, 0, ""},
        {"", 0, 0, -1, "keep"},
        {nullptr, 1, 8, -1, "keep"},
        {"a", -1, 8, -1, "keep"},
        {"a", 1, -1, -1, "keep"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.in ? c.in : "(null)") + "/" + std::to_string(c.room));
        char out[64], before[64];
        memset(out, '#', sizeof out);
        memcpy(out, "keep", 5);
        memcpy(before, out, sizeof out);
        EXPECT_EQ(mxmlEncodeEleNode(c.in, c.len, out, c.room), c.ret);
        if (c.out) {
            EXPECT_STREQ(out, c.out);
        }
        // Nothing is written past the room given.
        for (int i = std::max(c.room, 0); i < 64; i++) ASSERT_EQ(out[i], before[i]) << i;
    }
    EXPECT_EQ(mxmlEncodeEleNode("a", 1, nullptr, 8), -1);
}

TEST(XmlDocGuard, ReleasesAndHandsOver) {
    mxmlTreeDelete(nullptr);
    XmlDoc doc = parse("<a><b/></a>");
    XmlDoc moved(std::move(doc));
    EXPECT_FALSE(doc);
    ASSERT_TRUE(moved);
    XmlNode **raw = moved.release();
    EXPECT_FALSE(moved);
    EXPECT_STREQ((*raw)->firstChild->name, "b");
    mxmlTreeDelete(raw);
}

}  // namespace
