// The gateway's decisions without a socket: files, routes, rules, paths, sessions and
// the failed-login count.
#include <gtest/gtest.h>

#include <set>

#include "policy.h"
#include "sessions.h"

namespace {

using namespace kepweb;

const char kRules[] = R"({
  "admin":  {"*": ["read", "write", "exec"]},
  "viewer": {"*": ["read"]},
  "dhcpop": {"dhcp": ["read", "write", "exec"], "system": ["read"]},
  "locked": {"*": ["read", "write"], "secret": []}
})";

Rules rules() {
    Rules r;
    std::string error;
    EXPECT_TRUE(parseRules(kRules, &r, &error)) << error;
    return r;
}

TEST(GatewayFiles, RulesGrantPerModuleWithStarAsFallback) {
    const Rules r = rules();
    EXPECT_EQ(permissionsOf(r, "admin", "dhcp"), unsigned{kRead | kWrite | kExec});
    EXPECT_EQ(permissionsOf(r, "viewer", "anything"), unsigned{kRead});
    EXPECT_EQ(permissionsOf(r, "dhcpop", "system"), unsigned{kRead});
    EXPECT_EQ(permissionsOf(r, "dhcpop", "ntp"), 0u);     // no "*": nothing
    EXPECT_EQ(permissionsOf(r, "locked", "secret"), 0u);  // its own entry wins over "*"
    EXPECT_EQ(permissionsOf(r, "nosuchrole", "dhcp"), 0u);
}

TEST(GatewayFiles, MalformedRulesNameTheirLine) {
    const struct {
        const char *text, *error;
    } cases[] = {
        {"{\n \"a\": {\"*\": [\"read\"]},\n \"b\": {\"dhcp\": [\"reed\"]}\n}",
         "line 3: module \"dhcp\": \"reed\""},
        {"{\n \"a\": {\"*\": [\"read\"]\n", "line 3: not JSON"},
        {"[1]", "line 1: the rules are a JSON object"},
        {"{\"a\": [\"read\"]}", "line 1: role \"a\": an object"},
        {"{\"a\": {\"dh/cp\": [\"read\"]}}", "is not a module name"},
        {"{\"a b\": {}}", "role \"a b\""},
        {"{\"a\": {\"dhcp\": \"read\"}}", "a list of"},
        {"{} trailing", "not JSON"},
    };
    for (const auto &c : cases) {
        Rules r;
        std::string error;
        EXPECT_FALSE(parseRules(c.text, &r, &error)) << c.text;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.text << " -> " << error;
        EXPECT_TRUE(r.empty());
    }
}

TEST(GatewayFiles, UsersFileLinesAndTheirErrors) {
    const Rules r = rules();
    std::vector<User> users;
    std::string error;
    ASSERT_TRUE(
        parseUsers("# admins\n\nann:$y$j9T$abc$def:admin\r\nbob:$6$salt$hash:viewer\n", r, &users, &error))
        << error;
    ASSERT_EQ(users.size(), 2u);
    EXPECT_EQ(users[0].name, "ann");
    EXPECT_EQ(users[0].hash, "$y$j9T$abc$def");
    EXPECT_EQ(users[1].role, "viewer");
    EXPECT_EQ(users[1].line, 4);
    const struct {
        const char *text, *error;
    } cases[] = {
        {"ann:$6$a$b:admin\nann:$6$c$d:viewer\n", "line 2: user ann is named twice"},
        {"ann:$6$a$b:root\n", "line 1: user ann: role \"root\" has no rules"},
        {"\nann:plain:admin\n", "line 2: user ann: the hash is not"},
        {"ann:$6$a$b\n", "line 1: not name:hash:role"},
        {"ann\n", "line 1: not name:hash:role"},
        {"a/b:$6$a$b:admin\n", "line 1: user name"},
        {":$6$a$b:admin\n", "line 1: user name"},
    };
    for (const auto &c : cases) {
        EXPECT_FALSE(parseUsers(c.text, r, &users, &error)) << c.text;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.text << " -> " << error;
        EXPECT_TRUE(users.empty());
    }
}

TEST(GatewayRoutes, EndpointsMethodsAndTheRest) {
    std::string allow;
    EXPECT_EQ(routeOf("POST", "/api/login", &allow), Route::kLogin);
    EXPECT_EQ(routeOf("POST", "/api/logout", &allow), Route::kLogout);
    EXPECT_EQ(routeOf("GET", "/api/session", &allow), Route::kSession);
    EXPECT_EQ(routeOf("POST", "/api/request", &allow), Route::kRequest);
    EXPECT_EQ(routeOf("GET", "/api/model", &allow), Route::kModel);
    EXPECT_EQ(routeOf("GET", "/api/errors", &allow), Route::kErrors);
    EXPECT_EQ(routeOf("POST", "/api/apply", &allow), Route::kApply);
    EXPECT_EQ(routeOf("POST", "/api/confirm", &allow), Route::kConfirm);
    EXPECT_EQ(routeOf("POST", "/api/cancel", &allow), Route::kCancel);
    EXPECT_EQ(routeOf("GET", "/api/pending", &allow), Route::kPending);
    EXPECT_EQ(routeOf("GET", "/api/apply", &allow), Route::kMethodNotAllowed);
    EXPECT_EQ(routeOf("GET", "/api/login", &allow), Route::kMethodNotAllowed);
    EXPECT_EQ(allow, "POST");
    EXPECT_EQ(routeOf("OPTIONS", "/api/request", &allow), Route::kPreflight);
    // Nothing under /api/ falls through to the web root.
    EXPECT_EQ(routeOf("GET", "/api/login/", &allow), Route::kApiNotFound);
    EXPECT_EQ(routeOf("GET", "/api", &allow), Route::kApiNotFound);
    EXPECT_EQ(routeOf("GET", "/api/../index.html", &allow), Route::kApiNotFound);
    EXPECT_EQ(routeOf("GET", "/index.html", &allow), Route::kStatic);
    EXPECT_EQ(routeOf("HEAD", "/", &allow), Route::kStatic);
    EXPECT_EQ(routeOf("PUT", "/index.html", &allow), Route::kMethodNotAllowed);
    EXPECT_EQ(allow, "GET, HEAD");
}

TEST(GatewayRules, RequestsAreCheckedPerMethodAndEveryModule) {
    const Rules r = rules();
    Check c =
        checkRequest(r, "viewer", R"({"method":"get","dhcp":{"table":"host"},"system":{"name":"ntp"}})");
    EXPECT_EQ(c.status, 200);
    EXPECT_EQ(c.method, "get");
    EXPECT_EQ(c.modules, (std::vector<std::string>{"dhcp", "system"}));
    EXPECT_EQ(checkRequest(r, "viewer", R"({"method":"set","dhcp":{"lan":{}}})").status, 403);
    EXPECT_EQ(checkRequest(r, "viewer", R"({"method":"do","dhcp":{"restart":{}}})").status, 403);
    EXPECT_EQ(checkRequest(r, "dhcpop", R"({"method":"do","dhcp":{"restart":{}}})").status, 200);
    // One denied module refuses the whole request, wherever it stands.
    c = checkRequest(r, "dhcpop", R"({"method":"set","dhcp":{"lan":{}},"system":{"zone":{}}})");
    EXPECT_EQ(c.status, 403);
    EXPECT_NE(c.reason.find("system"), std::string::npos);
    EXPECT_EQ(checkRequest(r, "dhcpop", R"({"system":{"zone":{}},"method":"add","dhcp":{}})").status, 403);
    EXPECT_EQ(checkRequest(r, "locked", R"({"method":"get","secret":{"table":"t"}})").status, 403);
    // Methods the rules cannot grant, and requests that are no JSON object.
    EXPECT_EQ(checkRequest(r, "admin", R"({"method":"reset","dhcp":{}})").status, 403);
    EXPECT_EQ(checkRequest(r, "admin", R"({"dhcp":{}})").status, 403);
    EXPECT_EQ(checkRequest(r, "admin", R"({"method":["get"],"dhcp":{}})").status, 403);
    EXPECT_EQ(checkRequest(r, "nosuchrole", R"({"method":"get","dhcp":{}})").status, 403);
    for (const std::string &bad : std::vector<std::string>{
             "", "get", "[]", "\"text\"", "{\"method\":\"get\"", "{\"method\":\"get\"} {}",
             std::string("{\"method\":\"get\"}\0{\"x\":1}", 24)})
        EXPECT_EQ(checkRequest(r, "admin", bad).status, 400) << bad;
    EXPECT_EQ(checkRequest(r, "admin", "{\"method\":\"get\"}\r\n").status, 200);
    // Nesting deeper than a request needs is refused before the library sees it.
    EXPECT_EQ(checkRequest(r, "admin",
                           "{\"method\":\"get\",\"d\":" + std::string(40, '[') + std::string(40, ']') + "}")
                  .status,
              400);
}

// A change set passes only when every module of every request is writable, whatever the
// methods: all of it may be changed and undone.
TEST(GatewayRules, ChangeSetsNeedEveryModuleWritable) {
    const Rules r = rules();
    std::string changes;
    int confirm = -1;
    Check c = checkChangeSet(r, "dhcpop",
                             R"({"changes":[{"method":"set","dhcp":{"lan":{}}},{"method":"get","dhcp":{}}],
                                 "confirm":60})",
                             &changes, &confirm);
    EXPECT_EQ(c.status, 200) << c.reason;
    EXPECT_EQ(changes, R"([{"method":"set","dhcp":{"lan":{}}},{"method":"get","dhcp":{}}])");
    EXPECT_EQ(confirm, 60);
    EXPECT_EQ(c.modules, (std::vector<std::string>{"dhcp"}));
    c = checkChangeSet(r, "dhcpop", R"({"changes":{"method":"set","dhcp":{"lan":{}}}})", &changes, &confirm);
    EXPECT_EQ(c.status, 200);
    EXPECT_EQ(confirm, 0);
    c = checkChangeSet(r, "dhcpop",
                       R"({"changes":[{"method":"set","dhcp":{}},{"method":"get","system":{}}]})", &changes,
                       &confirm);
    EXPECT_EQ(c.status, 403);
    EXPECT_EQ(c.reason, "module \"system\": write is not granted");
    EXPECT_EQ(
        checkChangeSet(r, "viewer", R"({"changes":{"method":"get","dhcp":{}}})", &changes, &confirm).status,
        403);
    for (const char *bad : {R"({"changes":[]})", R"({"changes":"x"})", R"({"changes":[1]})", R"([])",
                            R"({"changes":{},"confirm":"60"})", R"({"changes":{},"confirm":3601})",
                            R"({"changes":{},"confirm":-1})", "{\"changes\":{}} x"})
        EXPECT_EQ(checkChangeSet(r, "admin", bad, &changes, &confirm).status, 400) << bad;
}

TEST(GatewayRules, PendingChangeSetsShowOnlyReadableModules) {
    const Rules r = rules();
    const std::string answer =
        R"({"error_code":0,"pending":{"id":3,"user":"admin","modules":["dhcp","secret"]}})";
    EXPECT_EQ(pendingView(r, "locked", answer),
              R"({"error_code":0,"pending":{"id":3,"user":"admin","modules":["dhcp"],"hidden":1}})");
    EXPECT_EQ(pendingView(r, "admin", answer),
              R"({"error_code":0,"pending":{"id":3,"user":"admin","modules":["dhcp","secret"]}})");
    EXPECT_EQ(pendingView(r, "viewer", R"({"error_code":0})"), R"({"error_code":0})");
}

TEST(GatewayRules, DuplicateKeysAreJudgedAsTheLibraryReadsThem) {
    // json-c keeps the last of two equal keys, as the library does: the method
    // judged is the one that runs.
    const Rules r = rules();
    EXPECT_EQ(checkRequest(r, "viewer", R"({"method":"get","method":"set","dhcp":{}})").status, 403);
}

TEST(GatewayStatic, PathsStayBelowTheRoot) {
    std::vector<std::string> parts;
    ASSERT_TRUE(staticPath("/", &parts));
    EXPECT_EQ(parts, (std::vector<std::string>{"index.html"}));
    ASSERT_TRUE(staticPath("/js/app.js", &parts));
    EXPECT_EQ(parts, (std::vector<std::string>{"js", "app.js"}));
    ASSERT_TRUE(staticPath("/docs/", &parts));
    EXPECT_EQ(parts, (std::vector<std::string>{"docs", "index.html"}));
    for (const std::string &bad :
         std::vector<std::string>{"", "index.html", "/..", "/../etc/passwd", "/a/../../b", "/./a", "/a//b",
                                  "/.git/config", "/a\\..\\b", "/a\nb", std::string("/a\0b", 4),
                                  "/" + std::string(300, 'a'), "/a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/q/r"})
        EXPECT_FALSE(staticPath(bad, &parts)) << bad;
}

TEST(GatewayStatic, ContentTypesByExtension) {
    EXPECT_STREQ(contentTypeOf("index.html"), "text/html; charset=utf-8");
    EXPECT_STREQ(contentTypeOf("APP.JS"), "text/javascript; charset=utf-8");
    EXPECT_STREQ(contentTypeOf("style.css"), "text/css; charset=utf-8");
    EXPECT_STREQ(contentTypeOf("logo.svg"), "image/svg+xml");
    EXPECT_STREQ(contentTypeOf("data.bin"), "application/octet-stream");
    EXPECT_STREQ(contentTypeOf("Makefile"), "application/octet-stream");
}

TEST(GatewayModel, ShowsReadableModulesWithoutWhoServesThem) {
    const std::string tree =
        R"({"generation":3,"modules":[)"
        R"({"name":"dhcp","config":"/etc/dhcp.json","tables":[{"name":"host","dynamic":0,"list":1,"opr":[12,"cb"],"sections":[{"name":"host_1"}]},)"
        R"({"name":"pool","dynamic":0,"list":0,"sections":[{"name":"lan","methods":[[0,12,"x"]]}]},{"name":"client","dynamic":1,"list":1,"sections":[]}],)"
        R"("actions":[["restart",12,"/dhcp/restart"]]},)"
        R"({"name":"system","tables":[],"actions":[["sync",13,"s"]]},{"name":"ntp","tables":[],"actions":[]}]})";
    const Rules r = rules();
    const std::string view = modelView(r, "dhcpop", tree);
    EXPECT_EQ(
        view,
        R"({"modules":[{"name":"dhcp","access":["read","write","exec"],"tables":[)"
        R"({"name":"host","kind":"list","stored":true,"sections":["host_1"]},)"
        R"({"name":"pool","kind":"named","stored":true,"sections":["lan"]},)"
        R"({"name":"client","kind":"list","stored":false,"sections":[]}],"actions":[{"name":"restart","exec":true}]},)"
        R"({"name":"system","access":["read"],"tables":[],"actions":[{"name":"sync","exec":false}]}]})");
    EXPECT_EQ(modelView(r, "nosuchrole", tree), R"({"modules":[]})");
    EXPECT_EQ(modelView(r, "admin", "not json"), "");
    EXPECT_EQ(modelView(r, "admin", R"({"modules":{}})"), "");
}

TEST(GatewaySessions, IdleAbsoluteAndBackgroundRefresh) {
    Sessions s(1000, 5000, 4);
    const std::string t = s.open("ann", "admin", 0);
    ASSERT_EQ(t.size(), 32u);
    EXPECT_EQ(s.find(t, 900, false)->user, "ann");  // extends to 1900
    EXPECT_NE(s.find(t, 1800, true), nullptr);      // a background refresh does not
    EXPECT_EQ(s.find(t, 1900, true), nullptr);      // so it ends at 1900
    EXPECT_EQ(s.size(), 0u);
    const std::string u = s.open("ann", "admin", 0);
    for (int64_t at = 800; at < 5000; at += 800) ASSERT_NE(s.find(u, at, false), nullptr) << at;
    EXPECT_EQ(s.find(u, 5000, false), nullptr);  // the absolute limit, however busy
    EXPECT_EQ(s.find("", 0, false), nullptr);
    const std::string v = s.open("ann", "admin", 6000);
    EXPECT_TRUE(s.close(v));
    EXPECT_FALSE(s.close(v));
    EXPECT_EQ(s.find(v, 6001, false), nullptr);
}

TEST(GatewaySessions, PerUserBoundEndsTheOldestAndTokensDiffer) {
    Sessions s(60000, 60000, 2);
    const std::string a = s.open("ann", "admin", 0), b = s.open("ann", "admin", 1),
                      other = s.open("bob", "viewer", 2);
    const std::string c = s.open("ann", "admin", 3);
    EXPECT_EQ(s.find(a, 4, false), nullptr);
    EXPECT_NE(s.find(b, 4, false), nullptr);
    EXPECT_NE(s.find(c, 4, false), nullptr);
    EXPECT_NE(s.find(other, 4, false), nullptr);
    std::set<std::string> seen;
    for (int i = 0; i < 1000; i++) {
        const std::string t = newToken();
        ASSERT_EQ(t.find_first_not_of("0123456789abcdef"), std::string::npos);
        seen.insert(t);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

TEST(GatewayThrottle, FiveFreeThenWaitsDoublingToFiveMinutes) {
    Throttle t;
    int64_t now = 0;
    for (int i = 0; i < Throttle::kFree - 1; i++) {
        t.failed("u:ann", now);
        EXPECT_EQ(t.waitFor("u:ann", now), 0);
    }
    t.failed("u:ann", now);
    EXPECT_EQ(t.waitFor("u:ann", now), 1000);
    EXPECT_EQ(t.waitFor("u:bob", now), 0);
    int64_t expected = 1000;
    for (int i = 0; i < 12; i++) {
        now += t.waitFor("u:ann", now);
        EXPECT_EQ(t.waitFor("u:ann", now), 0);
        t.failed("u:ann", now);
        expected = std::min<int64_t>(expected * 2, Throttle::kMaxWaitMs);
        EXPECT_EQ(t.waitFor("u:ann", now), expected) << i;
    }
    t.succeeded("u:ann");
    EXPECT_EQ(t.waitFor("u:ann", now), 0);
    // Failures long ago are forgotten: the count starts again.
    for (int i = 0; i < Throttle::kFree - 1; i++) t.failed("a:1", 0);
    t.failed("a:1", Throttle::kForgetMs + 1);
    EXPECT_EQ(t.waitFor("a:1", Throttle::kForgetMs + 1), 0);
}

TEST(GatewayThrottle, TableStaysBoundedAndKeepsTheBlocked) {
    Throttle t(8);
    for (int i = 0; i < Throttle::kFree; i++) t.failed("a:attacker", 1000);
    for (int i = 0; i < 1000; i++) t.failed("u:name" + std::to_string(i), 1001 + i);
    EXPECT_LE(t.size(), 8u);
    // The oldest entry went first, but a blocked key that failed recently stays.
    Throttle u(8);
    for (int i = 0; i < 20; i++) u.failed("u:n" + std::to_string(i), i);
    for (int i = 0; i < Throttle::kFree; i++) u.failed("a:attacker", 100);
    u.failed("u:late", 101);
    EXPECT_GT(u.waitFor("a:attacker", 100), 0);
}

}  // namespace
