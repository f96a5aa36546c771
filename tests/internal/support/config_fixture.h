// A hand-built tree with modules whose configuration files live in a fresh
// temporary folder, and an owner whose binary record is a small fixed structure.
#pragma once

#include <json-c/json.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "kep_config.h"
#include "tree/tree_internal.h"

namespace kep_test {

// The owner's binary record of one section.
struct Rec {
    char text[24];
    int32_t value;
};

inline Rec makeRec(const char *text, int32_t value) {
    Rec r;
    memset(&r, 0, sizeof r);
    // Longer texts are cut on purpose: the record's field is fixed.
    memcpy(r.text, text, strnlen(text, sizeof r.text - 1));
    r.value = value;
    return r;
}

// Conversions of Rec: {"text": ..., "value": ...}.
inline int recToJson(const char *, json_object **out, const void *record, int size) {
    if (!record || size != static_cast<int>(sizeof(Rec))) return -1;
    const Rec *r = static_cast<const Rec *>(record);
    json_object *o = json_object_new_object();
    json_object_object_add(o, "text", json_object_new_string(r->text));
    json_object_object_add(o, "value", json_object_new_int(r->value));
    *out = o;
    return 0;
}

inline int jsonToRec(const char *, json_object *value, void *buf, int size) {
    json_object *text = nullptr, *num = nullptr;
    if (size < static_cast<int>(sizeof(Rec)) || !json_object_object_get_ex(value, "text", &text) ||
        !json_object_object_get_ex(value, "value", &num) || !json_object_is_type(text, json_type_string))
        return -1;
    Rec r = makeRec(json_object_get_string(text), json_object_get_int(num));
    memcpy(buf, &r, sizeof r);
    return sizeof r;
}

inline OprInterface recOpr(ResetConfigFn reset = nullptr) {
    OprInterface opr;
    memset(&opr, 0, sizeof opr);
    opr.resetConfig.config = reset;
    opr.binToJson.config = recToJson;
    opr.jsonToBin.config = jsonToRec;
    return opr;
}

inline std::string readText(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "<missing>";
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void writeText(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// The file's document in the platform's plain form, for comparisons that do not
// depend on how it was written; "<invalid>" when it does not parse.
inline std::string canonical(const std::string &text) {
    json_object *o = json_tokener_parse(text.c_str());
    if (!o) return "<invalid>";
    std::string s = json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN);
    json_object_put(o);
    return s;
}

// The files that repairs kept of path ("<path>.unreadable-<UTC time>[-N]"), in name
// order.
inline std::vector<std::string> keptUnreadable(const std::string &path) {
    const std::filesystem::path file(path);
    const std::string prefix = file.filename().string() + ".unreadable-";
    const std::regex stamp("[0-9]{8}T[0-9]{6}Z(-[0-9]+)?");
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(file.parent_path(), ec)) {
        const std::string name = e.path().filename();
        if (name.compare(0, prefix.size(), prefix) == 0 &&
            std::regex_match(name.substr(prefix.size()), stamp))
            out.push_back(e.path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

// Section names of a table, in list order.
inline std::vector<std::string> sectionNames(DataTable *table) {
    std::vector<std::string> out;
    for (LstNode *n = lstFirst(&table->sections); n; n = lstNext(n))
        out.push_back(reinterpret_cast<DataSection *>(n)->name);
    return out;
}

// A fresh tree over a fresh folder (short enough for the 31-character file paths).
class ConfigTree {
public:
    ConfigTree() {
        kep::resetTreeForTest();
        char tmpl[] = "/tmp/kcXXXXXX";
        dir_ = mkdtemp(tmpl) ? tmpl : "";
    }
    ~ConfigTree() {
        kep::resetTreeForTest();
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    ConfigTree(const ConfigTree &) = delete;
    ConfigTree &operator=(const ConfigTree &) = delete;

    const std::string &dir() const { return dir_; }
    std::string path(const std::string &file) const { return dir_ + "/" + file; }

    // file empty: a module without a configuration file.
    DataModule *module(const char *name, const std::string &file) {
        DataModule *m = kep::newDataModule();
        kep::copyName(m->name, name, sizeof m->name);
        if (!file.empty()) kep::copyName(m->configFile, path(file).c_str(), sizeof m->configFile);
        lstAdd(&kep::moduleRoot(), &m->link);
        return m;
    }
    DataTable *table(DataModule *m, const char *name, bool list, bool dynamic, const OprInterface &opr) {
        DataTable *t = kep::newDataTable();
        kep::copyName(t->name, name, sizeof t->name);
        t->optionPublic = list ? 1 : 0;
        t->isDynamic = dynamic ? 1 : 0;
        t->opr = opr;
        lstAdd(&m->tables, &t->link);
        return t;
    }
    DataSection *section(DataTable *t, const char *name, const OprInterface &opr) {
        DataSection *s = kep::newDataSection();
        kep::copyName(s->name, name, sizeof s->name);
        s->opr = opr;
        lstAdd(&t->sections, &s->link);
        return s;
    }
    VerNotifyNode *verify(DataTable *t, VerifyFn fn) {
        auto *v = static_cast<VerNotifyNode *>(kep::newCbNode());
        v->verifyFn = fn;
        lstAdd(&t->verList, &v->link);
        return v;
    }

private:
    std::string dir_;
};

}  // namespace kep_test
