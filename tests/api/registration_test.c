/* Registration on a declared tree, judged through the public lookups: module records,
 * operation interfaces, method callbacks, actions, verify and notify lists. */
#include <kepHandle.h>
#include <stdlib.h>

#include "check.h"

static int initCalls;
static int countingInit(void) {
    return ++initCalls;
}

static OprInterface opr(int pid, const char *cb) {
    OprInterface o;
    memset(&o, 0, sizeof o);
    o.pid = pid;
    strcpy(o.cb, cb);
    return o;
}

static DataSection *section(DataTable *t, const char *name) {
    LstNode *n;
    for (n = lstFirst(&t->sections); n; n = lstNext(n))
        if (strcmp(((DataSection *)n)->name, name) == 0) return (DataSection *)n;
    return NULL;
}

static void declare(const char *text) {
    XmlNode **doc = strXmlParse(text, 1);
    CHECK(doc != NULL);
    if (!doc) exit(checkSummary("registration"));
    CHECK_INT(registerDataModel(*doc), 0);
    mxmlTreeDelete(doc);
}

static void lookups(void) {
    DataModule *m = getDataModuler("m");
    DataTable *t = getDataTable(m, "t");
    DataSection *out = NULL;
    CHECK(getModulerRoot() == m && m != NULL);
    CHECK(getDataModuler("M") == NULL && getDataModuler("") == NULL);
    CHECK(getDataTable(NULL, "t") == t && t != NULL);
    CHECK(getDataTable(m, "x") == NULL);
    CHECK(getTableByFullName("/m/t") == t && getTableByFullName("/m/t/t_1") == t);
    CHECK(getTableByFullName("/m") == NULL && getTableByFullName("m/t") == NULL);
    CHECK_INT(findSectionInModule("m", "s", &out), 1);
    CHECK(out == section(getDataTable(m, "p"), "s"));
    CHECK_INT(findSectionInModule("m", "nope", &out), 0);
    CHECK_INT(findSectionInModule("zz", "s", &out), -1);
    CHECK_INT(findSectionInModule(NULL, "s", &out), -1);
}

static void appModule(void) {
    AppOps ops = {countingInit, {&initCalls, NULL, NULL}};
    AppOps noInit = {NULL, {&ops, NULL, NULL}};
    CHECK_INT(registerAppModule("undeclared", &ops), -1);
    CHECK_INT(registerAppModule(NULL, &ops), -1);
    CHECK_INT(registerAppModule("m", NULL), -1);
    CHECK_INT(initCalls, 0);
    CHECK_INT(registerAppModule("m", &ops), 0);
    CHECK_INT(registerAppModule("m", &ops), 0);
    CHECK_INT(initCalls, 2);
    CHECK(getDataModuler("m")->appOps.reserved[0] == &initCalls);
    CHECK_INT(registerAppModule("m", &noInit), 0);
    CHECK(getDataModuler("m")->appOps.reserved[0] == &ops);
}

static void interfaces(void) {
    DataTable *t = getTableByFullName("/m/t"), *p = getTableByFullName("/m/p");
    OprInterface o = opr(42, "owner"), one = opr(9, "one");
    CHECK_INT(regOprInterface("/m/t", &o), 0);
    CHECK_INT(t->opr.pid, 42);
    CHECK_STR(section(t, "t_1")->opr.cb, "owner"); /* list entries get a copy */
    CHECK_STR(section(t, "t_3")->opr.cb, "owner");
    CHECK_INT(regOprInterface("/m/p", &o), 0);
    CHECK_INT(p->opr.pid, 42);
    CHECK_INT(section(p, "s")->opr.pid, 0); /* named sections register on their own */
    CHECK_INT(regOprInterface("/m/t/t_2", &one), 0);
    CHECK_INT(section(t, "t_2")->opr.pid, 9);
    CHECK_INT(section(t, "t_1")->opr.pid, 42);
    CHECK_INT(t->opr.pid, 42);

    CHECK_INT(regOprInterface("/m", &o), -1);
    CHECK_INT(regOprInterface("/m/t/nope", &o), -1);
    CHECK_INT(regOprInterface("/m/zz", &o), -1);
    CHECK_INT(regOprInterface("m/t", &o), -1);
    CHECK_INT(regOprInterface("/m/t", NULL), -1);
}

static void methodCallbacks(void) {
    DataTable *t = getTableByFullName("/m/t");
    char longName[71];
    memset(longName, 'c', 70);
    longName[70] = '\0';
    CHECK_INT(registerMethodCb("/m/t", KEP_METHOD_GET, "first", 0), 0); /* pid 0 is a pid */
    CHECK_INT(registerMethodCb("/m/t", KEP_METHOD_GET, longName, 2), 0);
    CHECK_INT(t->methodCb[KEP_METHOD_GET]->pid, 2); /* replaced */
    CHECK_INT(strlen(t->methodCb[KEP_METHOD_GET]->cb), 64);
    CHECK_INT(t->optionPublic, 1);
    CHECK_INT(registerMethodCb("/m/t/t_1", KEP_METHOD_DELETE, "del", 3), 0);
    CHECK_INT(section(t, "t_1")->methodCb[KEP_METHOD_DELETE]->pid, 3);
    CHECK_INT(t->optionPublic, 0); /* a section's own callback makes the table private */

    CHECK_INT(registerMethodCb("/m/t", 5, "cb", 1), -1);
    CHECK_INT(registerMethodCb("/m/t", -1, "cb", 1), -1);
    CHECK_INT(registerMethodCb("/m/t", 0, "cb", -1), -1);
    CHECK_INT(registerMethodCb("/m/t", 0, NULL, 1), -1);
    CHECK_INT(registerMethodCb("m/t", 0, "cb", 1), -1);
    CHECK_INT(registerMethodCb("/m", 0, "cb", 1), -1);
    CHECK_INT(registerMethodCb("/m/zz", 0, "cb", 1), -1);
    CHECK_INT(registerMethodCb("/m/t/nope", KEP_METHOD_ADD, "cb", 1), -1);

    CHECK_INT(registerMethodCb("/m/t", KEP_METHOD_SET, "a", 1), 0);
    CHECK_INT(unRegisterMethodCb("/m/t", KEP_METHOD_SET, "other", 0), 0); /* name and pid not compared */
    CHECK(t->methodCb[KEP_METHOD_SET] == NULL);
    CHECK_INT(unRegisterMethodCb("/m/t", KEP_METHOD_SET, "a", 1), -1);
    CHECK_INT(unRegisterMethodCb("/m/t/t_1", KEP_METHOD_DELETE, "del", 3), 0);
    CHECK_INT(registerMethodCb("/m/t", KEP_METHOD_ADD, "add", 1), 0);
    CHECK_INT(unRegisterMethodCb("/m/t", KEP_METHOD_ADD, "add", 1), 0);
    CHECK(t->methodCb[KEP_METHOD_ADD] == NULL);
    CHECK(section(t, "t_1")->methodCb[KEP_METHOD_DELETE] == NULL);
    CHECK_INT(unRegisterMethodCb("/m/t", KEP_METHOD_ACTION, "a", 1), -1);
    CHECK_INT(unRegisterMethodCb("/m/zz", 0, "a", 1), -1);
    CHECK_INT(unRegisterMethodCb("/m", 0, "a", 1), -1); /* no table component */
    CHECK_INT(unRegisterMethodCb("/m/t/nope", KEP_METHOD_DELETE, "del", 3), -1);
}

static void actions(void) {
    DataModule *m = getDataModuler("m");
    char name[33], cb[71];
    ActionNode *a;
    memset(name, 'a', 32);
    name[32] = '\0';
    memset(cb, 'c', 70);
    cb[70] = '\0';
    CHECK_INT(registerAction("m", "restart", "do_restart", 7), 0);
    CHECK_INT(registerAction("m", "restart", "again", 7), -1); /* declared already */
    CHECK_INT(registerAction("m", name, "cb", 1), -1);         /* 32 characters */
    name[31] = '\0';
    CHECK_INT(registerAction("m", name, cb, 1), 0);
    CHECK_INT(registerAction("zz", "x", "cb", 1), -1);
    CHECK_INT(registerAction("m", "x", "cb", -1), -1);
    CHECK_INT(registerAction("m", "x", NULL, 1), -1);
    CHECK_INT(lstCount(&m->actions), 2);
    a = (ActionNode *)m->actions.tail;
    CHECK_INT(strlen(a->cb), 64);
    CHECK_INT(registerAction("m", "y", "cb", 0), 0); /* 0 is no negative pid */

    /* The method index of actions points a declared action at another callback. */
    CHECK_INT(registerMethodCb("/m/restart/ignored", KEP_METHOD_ACTION, "r", 78), 0);
    a = (ActionNode *)lstFirst(&m->actions);
    CHECK_INT(a->pid, 78);
    CHECK_STR(a->cb, "r");
    CHECK_INT(registerMethodCb("/m/nothing", KEP_METHOD_ACTION, "x", 1), -1);
    CHECK_INT(registerMethodCb("/zz/restart", KEP_METHOD_ACTION, "x", 1), -1);
}

static void verifyAndNotify(void) {
    DataTable *t = getTableByFullName("/m/t");
    DataSection *s = section(getTableByFullName("/m/p"), "s");
    CHECK_INT(registerVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 5), 0);
    CHECK_INT(registerVerNotify("/m/t", 7, "n", 5), 0); /* any selector but 1 is notify */
    CHECK_INT(registerVerNotify("/m/t", KEP_SELECT_VERIFY, "v", 5), 0);
    CHECK_INT(lstCount(&t->notList), 2);
    CHECK_INT(lstCount(&t->verList), 1);
    CHECK_INT(unRegisterVerNotify("/m/t", KEP_SELECT_VERIFY, "n", 5), -1);
    CHECK_INT(unRegisterVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 6), -1);
    CHECK_INT(unRegisterVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 5), 0);
    CHECK_INT(unRegisterVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 5), 0);
    CHECK_INT(lstCount(&t->notList), 0);

    CHECK_INT(registerVerNotify("/m/p/s", KEP_SELECT_VERIFY, "v", 0), 0);
    CHECK_INT(lstCount(&s->verList), 1);
    CHECK_INT(registerVerNotify("/m/t/nope", KEP_SELECT_VERIFY, "v", 1), -1);
    CHECK_INT(unRegisterVerNotify("/m/p/x", KEP_SELECT_NOTIFY, "v", 1), -1);
    CHECK_INT(unRegisterVerNotify("/m/p/s", KEP_SELECT_VERIFY, "v", 0), 0);
    CHECK_INT(lstCount(&s->verList), 0);

    CHECK_INT(registerVerNotify("/m/zz", 1, "v", 1), -1);
    CHECK_INT(unRegisterVerNotify("/m/zz", 1, "v", 1), -1);
    CHECK_INT(registerVerNotify("/m", 1, "v", 1), -1);
    CHECK_INT(unRegisterVerNotify("/m", 1, "v", 1), -1);
    CHECK_INT(registerVerNotify("/m/t", 1, NULL, 1), -1);
    CHECK_INT(registerVerNotify("/m/t", 1, "v", -1), -1);
    CHECK_INT(unRegisterVerNotify("/m/t", 1, NULL, 1), -1);
    CHECK_INT(unRegisterVerNotify("/m/t", 1, "v", -1), -1);
    CHECK_INT(unRegisterVerNotify(NULL, 1, "v", 1), -1);
    CHECK_INT(unRegisterVerNotify("m/t", 1, "v", 1), -1);
}

/* Removal keeps module and table nodes: lists, records and list entries go. */
static void removal(void) {
    DataModule *m = getDataModuler("m");
    DataTable *l = getTableByFullName("/m/l"), *p = getTableByFullName("/m/p");
    DataSection *s = section(p, "s");
    OprInterface o = opr(6, "owner");
    CHECK_INT(regOprInterface("/m/p/s", &o), 0);
    CHECK_INT(registerMethodCb("/m/p/s", KEP_METHOD_GET, "g", 6), 0);
    CHECK_INT(registerVerNotify("/m/p", KEP_SELECT_NOTIFY, "n", 6), 0);
    CHECK_INT(registerMethodCb("/m/p", KEP_METHOD_ADD, "a", 6), 0);
    CHECK_INT(unregisterTable("/m/p"), 0);
    CHECK(s->methodCb[KEP_METHOD_GET] == NULL);
    CHECK(p->methodCb[KEP_METHOD_ADD] == NULL);
    CHECK_INT(s->opr.pid + p->opr.pid, 0);
    CHECK_INT(lstCount(&p->notList), 0);
    CHECK(section(p, "s") == s);
    CHECK_INT(unregisterTable("/m/x"), -1);
    CHECK_INT(unregisterTable(NULL), -1);

    delDataModule("m", 0);
    CHECK_INT(lstCount(&m->actions), 0);
    CHECK(m->appOps.reserved[0] == NULL);
    CHECK_INT(lstCount(&l->sections), 2);
    delDataModule("m", 1); /* now the entries of public tables too, not named sections */
    CHECK_INT(lstCount(&l->sections), 0);
    CHECK_INT(lstCount(&p->sections), 1);
    CHECK(getTableByFullName("/m/l") == l);
    delDataModule(NULL, 1);
}

int main(void) {
    /* Module m: tables t and l with list entries, table p with the named section s
     * (private once a section has a callback of its own). */
    declare(
        "<model><module name=\"m\"><table name=\"t\"><section name=\"t_1\"/><section name=\"t_2\"/>"
        "<section name=\"t_3\"/></table><table name=\"p\"><section name=\"s\"/></table>"
        "<table name=\"l\"><section name=\"l_1\"/><section name=\"l_2\"/></table></module></model>");
    CHECK_INT(registerMethodCb("/m/p/s", KEP_METHOD_GET, "private", 1), 0);
    CHECK_INT(getTableByFullName("/m/p")->optionPublic, 0);
    lookups();
    appModule();
    interfaces();
    methodCallbacks();
    actions();
    verifyAndNotify();
    removal();
    return checkSummary("registration");
}
