// Allocation-failure sweep: every scenario is run failing its 1st, 2nd, ... k-th
// allocation (the library's, json-c's and the stand-in's alike) until a run injects
// no failure. Every run must end in success or a documented error, leak nothing, and
// leave the tree and the configuration files as a failure leaves them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "alloc_fault.h"
#include "base/guard.h"
#include "config/config_internal.h"
#include "config_fixture.h"
#include "kep_config.h"
#include "kep_json.h"
#include "kep_pf_json.h"
#include "kep_pf_rpc.h"
#include "kep_request.h"
#include "kep_tree.h"
#include "kep_xml.h"
#include "model/model_internal.h"
#include "platform/standin/json_match.h"
#include "tree/tree_internal.h"

namespace {

namespace alloc = kep_test::alloc;
using kep_test::readText;
using kep_test::writeText;

// ---- the state a failure must leave intact ----

void dumpSlots(std::ostringstream &out, MethodCbNode *const slots[4]) {
    for (int i = 0; i < 4; i++)
        if (slots[i]) out << " m" << i << "=" << slots[i]->pid << ":" << slots[i]->cb;
}

void dumpCbList(std::ostringstream &out, const char *tag, LstList &list) {
    for (LstNode *n = lstFirst(&list); n; n = lstNext(n)) {
        auto *v = reinterpret_cast<VerNotifyNode *>(n);
        out << " " << tag << "=" << v->pid << ":" << v->cb << (v->verifyFn ? "+fn" : "");
    }
}

void dumpOpr(std::ostringstream &out, const OprInterface &o) {
    if (o.resetConfig.config || o.binToJson.config || o.jsonToBin.config || o.pid || o.cb[0])
        out << " opr=" << (o.resetConfig.config != nullptr) << (o.binToJson.config != nullptr)
            << (o.jsonToBin.config != nullptr) << ":" << o.pid << ":" << o.cb;
}

// One line per node, in list order, with everything registration can change.
std::vector<std::string> treeLines() {
    std::vector<std::string> lines;
    for (LstNode *mn = lstFirst(&kep::moduleRoot()); mn; mn = lstNext(mn)) {
        auto *m = reinterpret_cast<DataModule *>(mn);
        std::ostringstream o;
        o << "module " << m->name << " file=" << m->configFile << " init=" << (m->appOps.init != nullptr);
        lines.push_back(o.str());
        for (LstNode *tn = lstFirst(&m->tables); tn; tn = lstNext(tn)) {
            auto *t = reinterpret_cast<DataTable *>(tn);
            std::ostringstream to;
            to << "  table " << m->name << "/" << t->name << " dyn=" << t->isDynamic
               << " pub=" << t->optionPublic;
            dumpOpr(to, t->opr);
            dumpSlots(to, t->methodCb);
            dumpCbList(to, "ver", t->verList);
            dumpCbList(to, "not", t->notList);
            lines.push_back(to.str());
            for (LstNode *sn = lstFirst(&t->sections); sn; sn = lstNext(sn)) {
                auto *s = reinterpret_cast<DataSection *>(sn);
                std::ostringstream so;
                so << "    section " << m->name << "/" << t->name << "/" << s->name;
                dumpOpr(so, s->opr);
                dumpSlots(so, s->methodCb);
                dumpCbList(so, "ver", s->verList);
                dumpCbList(so, "not", s->notList);
                lines.push_back(so.str());
            }
        }
        for (LstNode *an = lstFirst(&m->actions); an; an = lstNext(an)) {
            auto *a = reinterpret_cast<ActionNode *>(an);
            lines.push_back(std::string("  action ") + m->name + "/" + a->name + " " +
                            std::to_string(a->pid) + ":" + a->cb);
        }
    }
    return lines;
}

std::string joined(const std::vector<std::string> &lines) {
    std::string s;
    for (const std::string &l : lines) s += l + "\n";
    return s;
}

// Fields of a collected state, kept apart by a byte no file or tree line holds.
constexpr char kSep = '\x1e';
std::string fields(std::initializer_list<std::string> parts) {
    std::string s;
    for (const std::string &p : parts) s += (&p == parts.begin() ? "" : std::string(1, kSep)) + p;
    return s;
}
std::vector<std::string> split(const std::string &s) {
    std::vector<std::string> out(1);
    for (char c : s) {
        if (c == kSep)
            out.emplace_back();
        else
            out.back() += c;
    }
    return out;
}

// True when every line of part appears in whole, in the same order.
bool isSubsequence(const std::vector<std::string> &part, const std::vector<std::string> &whole) {
    size_t j = 0;
    for (const std::string &l : part) {
        while (j < whole.size() && whole[j] != l) j++;
        if (j == whole.size()) return false;
        j++;
    }
    return true;
}

// ---- an owner answering in this process, written to survive failed allocations ----

int self() {
    return static_cast<int>(getpid());
}

// Answers errorCode 0 and, when user is not null, that text as "result". A failed
// add is the owner's own failure, returned as the call's result.
int answerCb(QxRpcPara *set, void *user) {
    int rc = qxrpcAddInt(set, "errorCode", 0);
    if (rc == 0 && user) rc = qxrpcAddStringPtr(set, "result", static_cast<const char *>(user));
    return rc;
}

const char kTableRows[] = R"([{"host_1":{"ip":"a"}},{"host_2":{"ip":"b"}},{"countAll":2}])";
const char kLanResult[] = R"({"start":"10.0.0.2","lease":720})";
const char kAdded[] = R"("host_3")";
const char kDone[] = R"({"done":true})";

void registerOwnerHandlers() {
    qxImiRegister("hostGet", answerCb, const_cast<char *>(kTableRows));
    qxImiRegister("hostSet", answerCb, nullptr);
    qxImiRegister("hostAdd", answerCb, const_cast<char *>(kAdded));
    qxImiRegister("hostDel", answerCb, nullptr);
    qxImiRegister("lanGet", answerCb, const_cast<char *>(kLanResult));
    qxImiRegister("lanSet", answerCb, nullptr);
    qxImiRegister("lanNotify", answerCb, nullptr);
    qxImiRegister("restartCb", answerCb, const_cast<char *>(kDone));
}

// ---- the owner's binary record and its conversions, checking every allocation ----

using kep_test::makeRec;
using kep_test::Rec;

int recAsJson(const char *, json_object **out, const void *record, int size) {
    if (!record || size != static_cast<int>(sizeof(Rec))) return -1;
    const Rec *r = static_cast<const Rec *>(record);
    json_object *o = jsonObjectNewObject();
    if (!o || jsonObjectAddString(o, "text", r->text) != 0 || jsonObjectAddInt(o, "value", r->value) != 0) {
        jsonObjectObjectDelete(o);
        return -1;
    }
    *out = o;
    return 0;
}

int recFromJson(const char *, json_object *value, void *buf, int size) {
    const char *text = jsonObjectGetString(value, "text");
    int num = 0;
    if (size < static_cast<int>(sizeof(Rec)) || !text || jsonObjectGetInt(value, "value", &num) != 0)
        return -1;
    Rec r = makeRec(text, num);
    memcpy(buf, &r, sizeof r);
    return sizeof r;
}

// Defaults: the list table holds host_1 {"dflt", 1}; the section lan {"lan", 2}.
int resetHosts(const char *, json_object **value) {
    Rec r = makeRec("dflt", 1);
    json_object *array = jsonObjectNewArray();
    json_object *element = jsonObjectNewObject();
    json_object *row = nullptr;
    if (!array || !element || recAsJson("host_1", &row, &r, sizeof r) != 0 ||
        jsonObjectObjectAdd(element, "host_1", row) != 0) {
        jsonObjectObjectDelete(array);
        jsonObjectObjectDelete(element);
        return -1;
    }
    if (jsonObjectArrayAdd(array, element) != 0) {
        jsonObjectObjectDelete(array);
        return -1;
    }
    *value = array;
    return 0;
}

int resetLan(const char *, json_object **value) {
    Rec r = makeRec("lan", 2);
    return recAsJson("lan", value, &r, sizeof r);
}

OprInterface opr(ResetConfigFn reset) {
    OprInterface o;
    memset(&o, 0, sizeof o);
    o.resetConfig.config = reset;
    o.binToJson.config = recAsJson;
    o.jsonToBin.config = recFromJson;
    return o;
}

int appInit() {
    return 0;
}

// ---- the sweep ----

struct Scenario {
    std::string name;
    std::function<void()> setup;           // outside the window: the state before the operation
    std::function<int()> act;              // inside: the operation, with allocations failing
    std::function<std::string()> collect;  // paused: what the operation produced, released
    // After the window: the result of act, what collect returned, and whether an
    // allocation failed; records failures with gtest.
    std::function<void(int rc, const std::string &out, bool injected, long k)> check;
};

struct Figures {
    std::string name;
    long points = 0;    // runs with an injected failure
    long failures = 0;  // of those, runs whose operation reported a failure
    long spared = 0;    // json-c calls not failed (see alloc_fault.cpp)
};

std::vector<Figures> gFigures;
// Set by a check whose operation answered an error inside a successful call (a
// request's "error_code"); otherwise a nonzero result counts.
bool gAnsweredError;

void releaseAll() {
    kep::resetTreeForTest();
}

Figures sweep(const Scenario &s) {
    Figures f;
    f.name = s.name;
    // Unwatched run first: one-time allocations of the libraries are made here.
    s.setup();
    s.act();
    s.collect();
    releaseAll();
    for (long k = 0;; k++) {
        s.setup();
        alloc::begin(k);  // k 0: the reference run, nothing fails
        int rc = s.act();
        alloc::pause();
        std::string out = s.collect();
        releaseAll();
        alloc::Window w = alloc::end();
        EXPECT_FALSE(w.overflow) << s.name;
        EXPECT_EQ(w.live, 0) << s.name << ": " << w.live << " blocks (" << w.liveBytes
                             << " bytes) leaked, k=" << k;
        gAnsweredError = false;
        s.check(rc, out, w.injected, k);
        f.spared += w.spared;
        if (w.injected) {
            f.points++;
            if (rc != 0 || gAnsweredError) f.failures++;
        }
        if (k > 0 && !w.injected) break;
        if (::testing::Test::HasFatalFailure() || k > 20000) break;
    }
    gFigures.push_back(f);
    return f;
}

// ---- fixtures: a model description with a configuration file in a fresh folder ----

class AllocSweep : public ::testing::Test {
protected:
    static void SetUpTestSuite() { registerOwnerHandlers(); }
    static void TearDownTestSuite() {
        // The figures the robustness report collects.
        long total = 0;
        for (const Figures &f : gFigures) {
            printf("SWEEP %-36s %4ld injection points, %4ld answered an error, %4ld json-c calls deferred\n",
                   f.name.c_str(), f.points, f.failures, f.spared);
            total += f.points;
        }
        printf("SWEEP TOTAL %zu scenarios, %ld injection points\n", gFigures.size(), total);
        fflush(stdout);
    }
    void SetUp() override {
        char tmpl[] = "/tmp/kaXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        file_ = dir_ + "/dhcp.json";
        model_ = std::string(R"(<model><module name="dhcp"><config name=")") + file_ +
                 R"("/><table name="host" attribute="config"/><table name="pool" attribute="config">)"
                 R"(<section name="lan"/></table><table name="client" attribute="dynamic"/>)"
                 R"(<service name="restart"/></module><module name="sys"><table name="info")"
                 R"( attribute="dynamic"/></module></model>)";
        releaseAll();
    }
    void TearDown() override {
        releaseAll();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    // The description merged, outside any window.
    void merge() {
        XmlNode **doc = strXmlParse(model_.c_str(), 1);
        ASSERT_NE(doc, nullptr);
        ASSERT_EQ(registerDataModel(*doc), 0);
        mxmlTreeDelete(doc);
    }
    // Sets the file's times well into the past: a document read from it is kept.
    static void age(const std::string &path) {
        struct timespec past[2];
        clock_gettime(CLOCK_REALTIME, &past[0]);
        past[0].tv_sec -= 60;
        past[1] = past[0];
        utimensat(AT_FDCWD, path.c_str(), past, 0);
    }
    // The tree wired, the file holding stored and loaded; kept: a document of it is kept
    // from an earlier read.
    void loadStored(const std::string &stored, bool kept) {
        wire();
        writeText(file_, stored);
        ASSERT_EQ(systemLoadConfigFile(), 0);
        if (!kept) return;
        age(file_);
        Rec r;
        ASSERT_EQ(modelRead("/dhcp/pool/lan", &r, sizeof r), static_cast<int>(sizeof r));
    }
    // The description, conversions and every callback registered to this process.
    void wire() {
        merge();
        OprInterface hosts = opr(resetHosts), lan = opr(resetLan);
        ASSERT_EQ(regOprInterface("/dhcp/host", &hosts), 0);
        ASSERT_EQ(regOprInterface("/dhcp/pool/lan", &lan), 0);
        int rc = registerMethodCb("/dhcp/host", KEP_METHOD_GET, "hostGet", self()) |
                 registerMethodCb("/dhcp/host", KEP_METHOD_SET, "hostSet", self()) |
                 registerMethodCb("/dhcp/host", KEP_METHOD_ADD, "hostAdd", self()) |
                 registerMethodCb("/dhcp/host", KEP_METHOD_DELETE, "hostDel", self()) |
                 registerMethodCb("/dhcp/pool/lan", KEP_METHOD_GET, "lanGet", self()) |
                 registerMethodCb("/dhcp/pool/lan", KEP_METHOD_SET, "lanSet", self()) |
                 registerVerNotify("/dhcp/pool/lan", KEP_SELECT_NOTIFY, "lanNotify", self()) |
                 registerAction("dhcp", "restart", "restartCb", self());
        ASSERT_EQ(rc, 0);
    }
    // What the repairs kept of the file, each text followed by a line end.
    std::string keptTexts() const {
        std::string texts;
        for (const std::string &kept : kep_test::keptUnreadable(file_)) texts += readText(kept) + "\n";
        return texts;
    }
    void removeKept() const {
        for (const std::string &kept : kep_test::keptUnreadable(file_)) unlink(kept.c_str());
    }
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto &e : std::filesystem::directory_iterator(dir_)) names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string dir_, file_, model_;
};

// Registration: -1 leaves the tree as it was before, success gives the reference.
// alsoAfterFailure, when given, changes the tree before into a further state that a
// failure may leave.
Scenario registration(const std::string &name, std::function<void()> setup, std::function<int()> act,
                      std::function<void()> alsoAfterFailure = nullptr) {
    auto before = std::make_shared<std::set<std::string>>();
    auto after = std::make_shared<std::string>();
    Scenario s;
    s.name = name;
    s.setup = [=] {
        before->clear();
        setup();
        before->insert(joined(treeLines()));
        if (alsoAfterFailure) {
            alsoAfterFailure();
            before->insert(joined(treeLines()));
            releaseAll();
            setup();
        }
    };
    s.act = act;
    s.collect = [] { return joined(treeLines()); };
    s.check = [=](int rc, const std::string &out, bool injected, long k) {
        if (!injected) {
            EXPECT_EQ(rc, 0) << name;
            if (k == 0) *after = out;
            EXPECT_EQ(out, *after) << name;
            return;
        }
        if (rc == 0) {
            EXPECT_EQ(out, *after) << name << " k=" << k;
        } else {
            EXPECT_EQ(rc, -1) << name << " k=" << k;
            EXPECT_TRUE(before->count(out)) << name << " k=" << k << "\n" << out;
        }
    };
    return s;
}

TEST_F(AllocSweep, ModelDescriptionLoadAndMerge) {
    const std::string path = dir_ + "/model.xml";
    writeText(path, model_);
    auto reference = std::make_shared<std::vector<std::string>>();
    auto check = [=](const char *what) {
        return [=](int rc, const std::string &out, bool injected, long k) {
            std::vector<std::string> lines;
            std::istringstream in(out);
            for (std::string l; std::getline(in, l);) lines.push_back(l);
            if (!injected) {
                ASSERT_EQ(rc, 0) << what;
                if (k == 0) *reference = lines;
                EXPECT_EQ(lines, *reference) << what;
                return;
            }
            EXPECT_TRUE(rc == 0 || rc == -1) << what << " k=" << k << " rc=" << rc;
            if (rc == 0) EXPECT_EQ(lines, *reference) << what << " k=" << k;
            // A failure keeps what was built before it, nothing else.
            else
                EXPECT_TRUE(isSubsequence(lines, *reference)) << what << " k=" << k << "\n" << out;
        };
    };
    sweep({"model description: load from file", [] {}, [=] { return kep::loadModelFile(path.c_str()); },
           [] { return joined(treeLines()); }, check("load")});
    sweep({"model description: parse and merge", [] {},
           [=] {
               XmlNode **doc = strXmlParse(model_.c_str(), 1);
               if (!doc) return -1;
               int rc = registerDataModel(*doc);
               mxmlTreeDelete(doc);
               return rc;
           },
           [] { return joined(treeLines()); }, check("merge")});
}

TEST_F(AllocSweep, EveryRegistrationKind) {
    auto base = [this] { merge(); };
    AppOps ops;
    memset(&ops, 0, sizeof ops);
    ops.init = appInit;
    OprInterface hosts = opr(resetHosts), lan = opr(resetLan);
    sweep(registration("register app module", base, [ops] { return registerAppModule("dhcp", &ops); }));
    sweep(registration("operation interface: table", base,
                       [hosts] { return regOprInterface("/dhcp/host", &hosts); }));
    sweep(registration("operation interface: section", base,
                       [lan] { return regOprInterface("/dhcp/pool/lan", &lan); }));
    sweep(registration("method callback: table", base,
                       [] { return registerMethodCb("/dhcp/host", KEP_METHOD_GET, "hostGet", self()); }));
    // A section-level registration makes the table private once its node is made,
    // even if the section is then not found.
    sweep(registration(
        "method callback: section", base,
        [] { return registerMethodCb("/dhcp/pool/lan", KEP_METHOD_SET, "lanSet", self()); },
        [] { getTableByFullName("/dhcp/pool")->optionPublic = 0; }));
    sweep(registration("verify callback", base,
                       [] { return registerVerNotify("/dhcp/host", KEP_SELECT_VERIFY, "hostVer", self()); }));
    sweep(registration("notify callback", base, [] {
        return registerVerNotify("/dhcp/pool/lan", KEP_SELECT_NOTIFY, "lanNotify", self());
    }));
    sweep(
        registration("action", base, [] { return registerAction("dhcp", "restart", "restartCb", self()); }));
}

// Codes a request may answer when memory runs out somewhere on its way.
const std::set<int> kNoMemoryCodes = {KEP_ERR_GENERIC,  KEP_ERR_NO_ERRORCODE,  KEP_ERR_NULL_ARG,
                                      KEP_ERR_BAD_JSON, KEP_ERR_NO_RSP_MEMORY, QXRPC_ERR_NOMEM};

TEST_F(AllocSweep, RequestsEndToEndWithAnOwnerAnswering) {
    const struct {
        const char *name;
        const char *request;
        std::set<int> extra;                // further documented codes of that operation on no memory
        std::set<std::string> alsoSuccess;  // further documented successful answers
    } requests[] = {
        {"request get table", R"({"method":"get","dhcp":{"table":"host"}})", {}, {}},
        {"request get section", R"({"method":"get","dhcp":{"name":"lan"}})", {}, {}},
        {"request set", R"({"method":"set","dhcp":{"lan":{"lease":60}}})", {}, {}},
        // Once the owner has added the entry the add succeeds, even when the names it
        // answered cannot be parsed (null) or added to the response (left out).
        {"request add",
         R"({"method":"add","dhcp":{"table":"host","para":{"ip":"c"}}})",
         {KEP_ERR_NOT_REGISTERED},
         {R"({"dhcp":{"name":null},"error_code":0})", R"({"dhcp":{},"error_code":0})"}},
        {"request delete", R"({"method":"delete","dhcp":{"name":"host_2"}})", {}, {}},
        {"request do", R"({"method":"do","dhcp":{"restart":{"delay":1}}})", {}, {}},
    };
    for (const auto &r : requests) {
        auto before = std::make_shared<std::string>();
        auto reference = std::make_shared<std::string>();
        auto response = std::make_shared<char *>(nullptr);
        const std::string name = r.name, text = r.request;
        const std::set<std::string> alsoSuccess = r.alsoSuccess;
        std::set<int> allowed = kNoMemoryCodes;
        allowed.insert(r.extra.begin(), r.extra.end());
        sweep({name,
               [=] {
                   wire();
                   *before = joined(treeLines());
               },
               [=] { return standardKepReqHandle(text.c_str(), response.get()); },
               [=] {
                   std::string out = *response ? *response : "<null>";
                   free(*response);
                   *response = nullptr;
                   return joined(treeLines()) + out;
               },
               [=](int rc, const std::string &out, bool injected, long k) {
                   // Requests never change the tree.
                   ASSERT_EQ(out.substr(0, before->size()), *before) << name << " k=" << k;
                   const std::string rsp = out.substr(before->size());
                   if (!injected) {
                       ASSERT_EQ(rc, 0) << name;
                       if (k == 0) *reference = rsp;
                       EXPECT_EQ(rsp, *reference) << name;
                       EXPECT_NE(rsp.find(R"("error_code":0)"), std::string::npos) << rsp;
                       return;
                   }
                   if (rc != 0) {
                       // Not even an error text: -10100 when the request could not be
                       // parsed, -51204 when no answer could be made.
                       EXPECT_TRUE(rc == KEP_ERR_BAD_JSON || rc == KEP_ERR_NO_RSP_MEMORY)
                           << name << " rc=" << rc;
                       EXPECT_EQ(rsp, "<null>") << name;
                       return;
                   }
                   json_object *parsed = json_tokener_parse(rsp.c_str());
                   ASSERT_NE(parsed, nullptr) << name << " k=" << k << ": " << rsp;
                   int code = 1;
                   EXPECT_EQ(jsonObjectGetInt(parsed, "error_code", &code), 0) << rsp;
                   json_object_put(parsed);
                   gAnsweredError = code != 0;
                   // Success must be the whole answer; a failure only its code.
                   if (code == 0)
                       EXPECT_TRUE(rsp == *reference || alsoSuccess.count(rsp))
                           << name << " k=" << k << ": " << rsp;
                   else
                       EXPECT_TRUE(allowed.count(code)) << name << " k=" << k << ": " << rsp;
               }});
    }
}

// What reads of every section give, one line each, through the module's kept document
// and then from the file alone: the two must agree.
std::string readsThroughTheStore() {
    std::string out;
    for (int fresh = 0; fresh < 2; fresh++) {
        if (fresh) kep::dropModuleDocuments();
        for (const char *path :
             {"/dhcp/host/host_1", "/dhcp/host/host_2", "/dhcp/host/host_3", "/dhcp/pool/lan"}) {
            Rec r{};
            const int rc = modelRead(path, &r, sizeof r);
            out += std::string(path) + " " + std::to_string(rc) + (rc > 0 ? std::string(" ") + r.text : "") +
                   "\n";
        }
        out += "--\n";
    }
    return out;
}

TEST_F(AllocSweep, SectionWritesThroughTheStore) {
    const Rec added = makeRec("new", 3), changed = makeRec("changed", 4);
    const std::string stored =
        R"({"host":[{"host_1":{"text":"one","value":1}},{"host_2":{"text":"two","value":2}}],)"
        R"("pool":{"lan":{"text":"lan","value":2}}})";
    const std::string noList = R"({"pool":{"lan":{"text":"lan","value":2}}})";
    const struct {
        const char *name;
        const char *path;
        const Rec *record;
        const std::string *file;
    } writes[] = {
        {"list section add", "/dhcp/host/host_3", &added, &stored},
        {"list section add, the list not stored", "/dhcp/host/host_3", &added, &noList},
        {"list section update", "/dhcp/host/host_1", &changed, &stored},
        {"list section delete", "/dhcp/host/host_2", nullptr, &stored},
        {"named section write", "/dhcp/pool/lan", &changed, &stored},
    };
    // A write on a document read just before (the file is read again) and on one the
    // process keeps from an earlier read, which a failure must not leave changed.
    for (const bool kept : {false, true}) {
        for (const auto &w : writes) {
            auto before = std::make_shared<std::string>();
            auto reference = std::make_shared<std::string>();
            const std::string name = std::string(w.name) + (kept ? ", document kept" : ""), path = w.path;
            const Rec *record = w.record;
            const std::string &file = *w.file;
            sweep({name,
                   [=] {
                       loadStored(file, kept);
                       *before = fields({joined(treeLines()), readText(file_)});
                   },
                   [=] { return modelWrite(path.c_str(), record, record ? sizeof(Rec) : 0); },
                   [=] {
                       std::string listing;
                       for (const std::string &f : files()) listing += f + " ";
                       return fields({joined(treeLines()), readText(file_), listing, readsThroughTheStore()});
                   },
                   [=](int rc, const std::string &out, bool injected, long k) {
                       const std::vector<std::string> got = split(out);
                       // No temporary file is ever left behind.
                       EXPECT_EQ(got[2], "dhcp.json ") << name << " k=" << k;
                       // What a read returns is what the file holds.
                       const std::string &reads = got[3];
                       const size_t half = reads.find("--\n") + 3;
                       EXPECT_EQ(reads.substr(0, half), reads.substr(half)) << name << " k=" << k;
                       const std::string state = fields({got[0], got[1]});
                       if (!injected) {
                           ASSERT_EQ(rc, 0) << name;
                           if (k == 0) *reference = state;
                           EXPECT_EQ(state, *reference) << name;
                           return;
                       }
                       if (rc == 0) {
                           EXPECT_EQ(state, *reference) << name << " k=" << k;
                           return;
                       }
                       EXPECT_EQ(rc, -1) << name << " k=" << k;
                       // The file is untouched; the section node may already mirror the
                       // change (it is made before the store).
                       const std::vector<std::string> was = split(*before), ref = split(*reference);
                       EXPECT_EQ(got[1], was[1]) << name << " k=" << k;
                       EXPECT_TRUE(got[0] == was[0] || got[0] == ref[0]) << name << " k=" << k << "\n"
                                                                         << got[0];
                   }});
        }
    }
}

// A response text is whole, or there is none and the call says -1.
TEST_F(AllocSweep, ResponseTextWholeOrNone) {
    auto obj = std::make_shared<json_object *>(nullptr);
    auto text = std::make_shared<char *>(nullptr);
    sweep(
        {"response text",
         [=] { *obj = jsonObjectFromString(R"({"error_code":0,"dhcp":{"host":[{"host_1":{"value":1}}]}})"); },
         [=] { return jsonObjectToMallocString(*obj, text.get()); },
         [=] {
             const std::string out = *text ? *text : "(none)";
             free(*text);
             *text = nullptr;
             json_object_put(*obj);
             return out;
         },
         [](int rc, const std::string &out, bool injected, long k) {
             if (rc == 0) {
                 EXPECT_EQ(out, R"({"error_code":0,"dhcp":{"host":[{"host_1":{"value":1}}]}})") << k;
             } else {
                 EXPECT_TRUE(injected) << k;
                 EXPECT_EQ(rc, -1) << k;
                 EXPECT_EQ(out, "(none)") << k;
             }
         }});
}

// Reads: the record of the reference run, or -1 (a read failed); never a document
// left changed or half kept.
TEST_F(AllocSweep, SectionReadsThroughTheStore) {
    const std::string stored =
        R"({"host":[{"host_1":{"text":"one","value":1}},{"host_2":{"text":"two","value":2}}],)"
        R"("pool":{"lan":{"text":"lan","value":2}}})";
    for (const bool kept : {false, true}) {
        for (const char *path : {"/dhcp/host/host_2", "/dhcp/pool/lan"}) {
            const std::string name = std::string("read ") + path + (kept ? ", document kept" : "");
            auto got = std::make_shared<Rec>();
            auto before = std::make_shared<std::string>();
            sweep({name,
                   [=] {
                       loadStored(stored, kept);
                       *before = readText(file_);
                   },
                   [=] {
                       *got = Rec{};
                       return modelRead(path, got.get(), sizeof(Rec)) == static_cast<int>(sizeof(Rec)) ? 0
                                                                                                       : -1;
                   },
                   [=] {
                       return fields({readText(file_), readsThroughTheStore()});
                   },
                   [=](int rc, const std::string &out, bool injected, long k) {
                       const std::vector<std::string> state = split(out);
                       EXPECT_EQ(state[0], *before) << name << " k=" << k;
                       const size_t half = state[1].find("--\n") + 3;
                       EXPECT_EQ(state[1].substr(0, half), state[1].substr(half)) << name << " k=" << k;
                       if (rc == 0) {
                           EXPECT_STREQ(got->text, strstr(path, "lan") ? "lan" : "two") << name << " k=" << k;
                       } else {
                           EXPECT_TRUE(injected) << name << " k=" << k;
                       }
                   }});
        }
    }
}

TEST_F(AllocSweep, StartUpLoadRepairsADestroyedFile) {
    const std::string garbage = "{\"host\":[{\"host_1\":";
    auto before = std::make_shared<std::vector<std::string>>();
    auto reference = std::make_shared<std::string>();
    sweep({"start-up load of a destroyed file",
           [=] {
               wire();
               writeText(file_, garbage);
               removeKept();
               *before = treeLines();
           },
           [] { return systemLoadConfigFile(); },
           [=] {
               return fields({readText(file_), joined(treeLines()), keptTexts()});
           },
           [=](int rc, const std::string &out, bool injected, long k) {
               // A reset stores its text pretty-printed; only the content counts.
               const std::string raw = split(out)[0];
               // The repaired file is kept for analysis, once.
               if (raw != garbage) {
                   EXPECT_EQ(split(out)[2], garbage + "\n") << "k=" << k;
               }
               const std::string file = raw == garbage ? raw : kep_test::canonical(raw);
               std::vector<std::string> lines;
               std::istringstream in(split(out)[1]);
               for (std::string l; std::getline(in, l);) lines.push_back(l);
               if (!injected) {
                   ASSERT_EQ(rc, 0);
                   if (k == 0) *reference = out;
                   EXPECT_EQ(out, *reference);
                   EXPECT_NE(file, garbage);
                   return;
               }
               const std::string refFile = kep_test::canonical(split(*reference)[0]);
               EXPECT_TRUE(rc == 0 || rc == -1) << rc;
               // The file holds the garbage or the defaults, never anything else.
               EXPECT_TRUE(file == garbage || file == refFile) << "k=" << k << ": " << file;
               if (rc == -1) {
                   EXPECT_EQ(lines, *before) << "k=" << k;
               } else {
                   EXPECT_EQ(file, refFile) << "k=" << k;
                   // A failed node allocation ends the walk of the stored list.
                   std::vector<std::string> refLines;
                   std::istringstream rin(split(*reference)[1]);
                   for (std::string l; std::getline(rin, l);) refLines.push_back(l);
                   EXPECT_TRUE(isSubsequence(lines, refLines) && isSubsequence(*before, lines)) << "k=" << k;
               }
           }});
}

TEST_F(AllocSweep, FactoryResetKeepsEachFileWholeOrReset) {
    const std::string stored =
        R"({"host":[{"host_1":{"text":"one","value":1}},{"host_2":{"text":"two","value":2}}],)"
        R"("pool":{"lan":{"text":"mine","value":9}}})";
    auto before = std::make_shared<std::string>();
    auto reference = std::make_shared<std::string>();
    sweep({"factory reset",
           [=] {
               wire();
               writeText(file_, stored);
               removeKept();
               ASSERT_EQ(systemLoadConfigFile(), 0);
               *before = joined(treeLines());
           },
           [] { return systemResetConfigFile(); },
           [=] {
               std::string listing;
               for (const std::string &f : files())
                   if (f.rfind("dhcp.json.unreadable-", 0) != 0) listing += f + " ";
               return fields({readText(file_), listing, joined(treeLines()), keptTexts()});
           },
           [=](int rc, const std::string &out, bool injected, long k) {
               EXPECT_EQ(rc, 0) << "k=" << k;
               const std::vector<std::string> got = split(out);
               const std::string file = kep_test::canonical(got[0]);
               EXPECT_EQ(got[1], "dhcp.json ") << "k=" << k;
               // A sound file is kept aside only when memory ran out while it was
               // checked; the copy then holds the old file whole.
               if (!injected || !got[3].empty()) {
                   EXPECT_EQ(got[3], injected ? stored + "\n" : "") << "k=" << k;
               }
               // The tree keeps its list sections: a reset changes only the file.
               EXPECT_EQ(got[2], *before) << "k=" << k;
               if (!injected) {
                   if (k == 0) *reference = file;
                   EXPECT_EQ(file, *reference);
                   EXPECT_NE(file, stored);
                   return;
               }
               EXPECT_TRUE(file == kep_test::canonical(stored) || file == *reference)
                   << "k=" << k << ": " << file;
           }});

    // One module's reset tells its caller what became of the file: 0 with the defaults
    // stored, -1 with the file as it was.
    sweep({"module reset",
           [=] {
               wire();
               writeText(file_, stored);
               removeKept();
           },
           [] { return modelResetConfigFile(getDataModuler("dhcp")); },
           [=] { return kep_test::canonical(readText(file_)); },
           [=](int rc, const std::string &file, bool injected, long k) {
               EXPECT_TRUE(rc == 0 || rc == -1) << "k=" << k << ": " << rc;
               EXPECT_EQ(file, rc == 0 ? *reference : kep_test::canonical(stored)) << "k=" << k;
               if (!injected) {
                   EXPECT_EQ(rc, 0);
               }
           }});
}

}  // namespace

// A store checks that what it wrote reads back, also when memory is short: for text
// in JSON's own grammar that check allocates nothing. Only a number outside it is
// asked of the reader, which allocates.
TEST(TextMatching, JsonsOwnTextAllocatesNothing) {
    const char *texts[] = {
        R"({"a":[1.5,-0.5e-3,1E2,1e+2,1E-2,0.9,9.9e9,-0.0,0,-7,12345678901],"s":"x\u0001\n\/","t":true,"n":null})",
        R"([1.25E+10,-3e-2,2.0])",
    };
    for (const char *text : texts) {
        kep::JsonPtr obj(jsonObjectFromString(text));
        ASSERT_TRUE(obj) << text;
        kep_test::alloc::begin(0);
        const bool matched = kep_pf::jsonTextMatches(text, strlen(text), obj.get());
        const kep_test::alloc::Window w = kep_test::alloc::end();
        EXPECT_TRUE(matched) << text;
        EXPECT_EQ(w.allocations, 0) << text;
    }
    kep::JsonPtr lenient(jsonObjectFromString("[1.]"));
    ASSERT_TRUE(lenient);
    kep_test::alloc::begin(0);
    EXPECT_TRUE(kep_pf::jsonTextMatches("[1.]", 4, lenient.get()));
    EXPECT_GT(kep_test::alloc::end().allocations, 0) << "asked of the reader";
}
