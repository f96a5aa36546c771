// The model-description checker, run as a program on descriptions with the mistakes it
// exists for: each is named with its line, and the exit status tells a script.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

const std::string kSource = std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/../..";

std::string rep(char c, size_t n) {
    return std::string(n, c);
}

struct Checked {
    int status;
    std::string output;
};

class KepCheck : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/kc.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { system(("rm -rf '" + dir_ + "'").c_str()); }

    std::string write(const std::string &name, const std::string &text) {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path) << text;
        return path;
    }

    Checked check(const std::vector<std::string> &files) {
        std::string cmd = std::string(KEPCHECK_PATH);
        for (const std::string &f : files) cmd += " '" + f + "'";
        return run(cmd);
    }

    static Checked run(const std::string &cmd) {
        FILE *p = popen((cmd + " 2>&1").c_str(), "r");
        std::string out;
        char buf[512];
        for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        int status = p ? pclose(p) : -1;
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
    }

    // Each of lines occurs in found's output.
    static void expectLines(const Checked &found, const std::vector<std::string> &lines) {
        for (const std::string &line : lines)
            EXPECT_NE(found.output.find(line), std::string::npos) << line << "\n---\n" << found.output;
    }

    std::string dir_;
};

TEST_F(KepCheck, NamesEveryMistakeWithItsLine) {
    const std::string good = write("good.xml",
                                   "<model>\n"
                                   "  <module name=\"dhcp\">\n"
                                   "    <config name=\"/etc/kep/dhcp.json\"/>\n"
                                   "    <table name=\"host\" attribute=\"config\"/>\n"
                                   "    <table name=\"pool\"><section name=\"lan\"/></table>\n"
                                   "    <service name=\"restart\"/>\n"
                                   "  </module>\n"
                                   "</model>\n");
    Checked ok = check({good});
    EXPECT_EQ(ok.status, 0) << ok.output;
    EXPECT_EQ(ok.output, "");

    const std::string bad = write("bad.xml",
                                  "<model>\n"
                                  "  <module name=\"ntp\">\n"
                                  "    <config name=\"/etc/kep/a-much-too-long-folder/ntp.json\"/>\n"
                                  "    <tabel name=\"servers\"/>\n"
                                  "    <tables name=\"peers\"/>\n"
                                  "    <table name=\"peers\" attribute=\"Dynamic\"/>\n"
                                  "    <table name=\"a/b\"/>\n"
                                  "    <section name=\"orphan\"/>\n"
                                  "    <table name=\"t\"><section name=\"..\"/></table>\n"
                                  "  </module>\n"
                                  "  <module name=\"ntp\"><config name=\"/etc/kep/dhcp.json\"/></module>\n"
                                  "</model>\n");
    Checked found = check({good, bad});
    EXPECT_EQ(found.status, 1);
    for (const std::string line : {
             "bad.xml:3: configuration file \"/etc/kep/a-much-too-long-folder/ntp.json\" is cut to its first "
             "31",
             "bad.xml:4: <tabel> is ignored",
             "bad.xml:5: <tables> is taken for <table>",
             "bad.xml:6: a second table \"peers\" (the first is on line 5)",
             "bad.xml:6: table attribute \"Dynamic\" is ignored",
             "bad.xml:7: table name \"a/b\" holds \"/\": refused",
             "bad.xml:8: <section> outside a <table> is ignored",
             "bad.xml:9: section name \"..\" holds \"..\": refused",
             "bad.xml:11: a second module \"ntp\" (the first is on line 2)",
             "bad.xml:11: configuration file \"/etc/kep/dhcp.json\" is also the file of module \"dhcp\" on ",
         })
        EXPECT_NE(found.output.find(line), std::string::npos) << line << "\n---\n" << found.output;

    Checked broken = check({write("broken.xml", "<model>\n  <module name=\"x\">\n</model>\n")});
    EXPECT_EQ(broken.status, 1);
    EXPECT_NE(broken.output.find("broken.xml:3: not well-formed XML"), std::string::npos) << broken.output;
    EXPECT_EQ(check({dir_ + "/missing.xml"}).status, 2);
}

// The library's parser holds names, attribute values, text between two tags, comments
// and <?...?> in one 63-character buffer, and refuses the whole description when one
// does not fit; a cut element name no longer matches its closing tag. Every value below
// is one past the limit; the same at the limit is not refused.
TEST_F(KepCheck, WhatTheLibrarysParserRefusesAtOnePastItsLimits) {
    auto doc = [](size_t extra) {
        return "<?" + rep('p', 61 + extra) + "?>\n" +
               "<model>\n"
               "  <!--" +
               rep('c', 58 + extra) + "-->\n" + "  <module name=\"m\">\n" + rep(' ', 62 + extra) + "<" +
               rep('e', 31 + extra) + "></" + rep('e', 31 + extra) + ">\n" +
               "    <table name=\"t\" attribute=\"" + rep('v', 63 + extra) + "\"/>\n" +
               "  </module>\n"
               "</model>\n";
    };
    const std::string refuses = "the library's parser refuses the whole description";
    Checked atLimits = check({write("limits.xml", doc(0))});
    // The 31-character element is only ignored, and the 63-character value only cut.
    EXPECT_EQ(atLimits.output.find(refuses), std::string::npos) << atLimits.output;
    Checked over = check({write("over.xml", doc(1))});
    EXPECT_EQ(over.status, 1);
    expectLines(
        over,
        {
            "over.xml:1: more than 61 characters between <? and ?>: " + refuses,
            "over.xml:3: a comment of more than 58 characters: " + refuses,
            "over.xml:5: more than 63 characters of text between two tags (blanks count too): " + refuses,
            "over.xml:5: element name \"" + rep('e', 32) +
                "\" is longer than 31 characters, so its closing tag no longer matches: " + refuses,
            "over.xml:6: attribute attribute holds more than 63 characters: " + refuses,
        });

    // Without a closing tag a long name is only cut.
    Checked cut = check({write("cut.xml", "<model>\n<" + rep('e', 40) + "/></model>\n")});
    expectLines(cut, {"cut.xml:2: element name \"" + rep('e', 40) + "\" is cut to 31 characters"});
    EXPECT_EQ(cut.output.find(refuses), std::string::npos) << cut.output;

    // The library reads "\r\n" as two characters of text, expat as one.
    const std::string blanks = rep(' ', 62) + "<module name=\"m\"/></model>\n";
    EXPECT_EQ(check({write("lf.xml", "<model>\n" + blanks)}).status, 0);
    expectLines(check({write("crlf.xml", "<model>\r\n" + blanks)}),
                {"crlf.xml:2: more than 63 characters of text"});
}

TEST_F(KepCheck, IgnoredAttributesNestingAndText) {
    Checked found = check({write("a.xml",
                                 "<model>\n"
                                 "  <module name=\"m\" nmae=\"x\">\n"
                                 "    <table name=\"t\" kind=\"dynamic\">\n"
                                 "      <table name=\"inner\"/>\n"
                                 "      <section name=\"s\">" +
                                     rep('x', 40) + "<!-- c -->" + rep('y', 24) +
                                     "</section>\n"
                                     "    </table>\n"
                                     "    <module name=\"n\"/>\n"
                                     "  </module>\n"
                                     "</model>\n")});
    EXPECT_EQ(found.status, 1);
    expectLines(found,
                {
                    "a.xml:2: attribute nmae of <module> is ignored: the library reads name only",
                    "a.xml:3: attribute kind of <table> is ignored: the library reads name and attribute",
                    "a.xml:4: a table inside table \"t\": that one takes its sections as well",
                    "a.xml:5: the text of the section of line 5 is cut to 63 characters",
                    "a.xml:7: a module inside module \"m\": that one takes its tables and services as well",
                });
}

// The same module in two files is merged into one; two modules sharing a file clash.
TEST_F(KepCheck, ConfigurationFilesAcrossFiles) {
    const std::string a =
        write("a.xml", "<model><module name=\"m\"><config name=\"/etc/kep/m.json\"/></module></model>");
    const std::string b =
        write("b.xml", "<model><module name=\"m\"><config name=\"/etc/kep/m.json\"/></module></model>");
    const std::string c =
        write("c.xml", "<model>\n<module name=\"n\"><config name=\"/etc/kep/m.json\"/></module></model>");
    Checked same = check({a, b});
    EXPECT_EQ(same.status, 0) << same.output;
    Checked clash = check({a, c});
    EXPECT_EQ(clash.status, 1);
    expectLines(
        clash,
        {"c.xml:2: configuration file \"/etc/kep/m.json\" is also the file of module \"m\" on " + a + ":1"});
}

TEST_F(KepCheck, SamplesAreCleanAndUsageGoesToStandardOutput) {
    Checked samples = check({kSource + "/examples/model.xml"});
    EXPECT_EQ(samples.status, 0) << samples.output;
    samples = check({kSource + "/examples/dhcpd/dhcp.xml.in", kSource + "/examples/sysd/system.xml.in"});
    EXPECT_EQ(samples.status, 0) << samples.output;

    Checked help = run(std::string(KEPCHECK_PATH) + " --help 2>/dev/null");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output.rfind("usage: kepcheck FILE...", 0), 0u) << help.output;
    EXPECT_NE(help.output.find("Exit status: 0"), std::string::npos);
    EXPECT_EQ(run(std::string(KEPCHECK_PATH) + " 2>/dev/null").status, 2);
}

}  // namespace
