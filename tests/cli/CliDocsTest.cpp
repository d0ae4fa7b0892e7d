#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include <CLI/CLI.hpp>

#include "CompletionScript.h"
#include "ManPage.h"

using namespace plenk::cli;

namespace {

// What the tool's own tree does not have: texts troff would misread, a checked set of
// values, hidden options and verbs.
struct TrickyApp {
    CLI::App app{"Tool description", "tool"};
    std::string level;
    bool secret = false;

    TrickyApp() {
        app.fallthrough();
        app.footer(".starts with a dot\n'a quote\nback\\slash\nExit status:\n  0 done");
        CLI::App* verb = app.add_subcommand("go-on", "Do it");
        verb->add_option("--level-max", level, "Level")->check(CLI::IsMember({"low", "high"}));
        verb->add_flag("--secret", secret, "Not shown")->group("");
        app.add_subcommand("hidden", "Not shown either")->group("");
    }
};

}  // namespace

TEST(CliDocs, ManPageEscapesTroffAndLeavesOutHiddenItems) {
    TrickyApp tricky;
    std::ostringstream out;
    writeManPage(out, tricky.app, "9.9");
    const std::string page = out.str();
    for (const char* expected :
         {".TH TOOL 1 \"\" \"tool 9.9\"", "\n\\&.starts with a dot\n", "\n\\&'a quote\n", "\nback\\eslash\n",
          "\n.SH EXIT STATUS\n", "\\fB\\-\\-level\\-max\\fR", "\\fBtool go\\-on\\fR"}) {
        EXPECT_NE(page.find(expected), std::string::npos) << expected << " not in:\n" << page;
    }
    EXPECT_EQ(page.find("secret"), std::string::npos);
    EXPECT_EQ(page.find("hidden"), std::string::npos);
}

TEST(CliDocs, CompletionOffersCheckedValuesNotHiddenItemsAndOnlyKnownShells) {
    TrickyApp tricky;
    std::ostringstream bash;
    ASSERT_TRUE(writeCompletionScript(bash, tricky.app, "bash"));
    const std::string script = bash.str();
    EXPECT_NE(script.find("'choices|go-on|--level-max') REPLY='low high'"), std::string::npos) << script;
    EXPECT_NE(script.find("'commands|') REPLY='go-on'"), std::string::npos) << script;
    EXPECT_EQ(script.find("secret"), std::string::npos);
    std::ostringstream tcsh;
    EXPECT_FALSE(writeCompletionScript(tcsh, tricky.app, "tcsh"));
    EXPECT_TRUE(tcsh.str().empty());
}
