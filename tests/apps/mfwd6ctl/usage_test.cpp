// Help, wrong arguments, completion.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>

#include "tests/apps/mfwd6ctl/program.h"
#include "tests/kit/run_dir.h"

namespace {

using namespace ctl_test;

// Commands that the help of one names.
words commands_in(const std::string &help) {
    words names;
    const size_t begin = help.find("Subcommands:\n");
    if (begin == std::string::npos) {
        return names;
    }
    const std::string rest = help.substr(begin, help.find("\n\n", begin) - begin);
    const std::regex line(R"(\n  (\S+) )");
    for (std::sregex_iterator at(rest.begin(), rest.end(), line), end; at != end; ++at) {
        std::string name = (*at)[1];
        names.push_back(name.substr(0, name.find(',')));
    }
    return names;
}

const std::string &manual() {
    static const std::string text = [] {
        std::ifstream file(MFWD6_MAN);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }();
    return text;
}

void check_help(const words &path, int *seen) {
    words arguments = path;
    arguments.push_back("--help");
    const ended e = run(arguments);
    std::string shown;
    for (const std::string &word : path) {
        shown += word + " ";
    }
    EXPECT_EQ(e.code, 0) << shown;
    EXPECT_NE(e.out.find("Example"), std::string::npos) << shown << e.out;
    ++*seen;
    const words deeper_commands = commands_in(e.out);
    if (deeper_commands.empty()) {
        shown.pop_back();
        EXPECT_NE(manual().find("Cm " + shown), std::string::npos) << shown;
    }
    for (const std::string &name : deeper_commands) {
        words deeper = path;
        deeper.push_back(name);
        check_help(deeper, seen);
    }
}

TEST(Usage, EveryCommandHasHelpWithExamplesAndStandsInTheManual) {
    int seen = 0;
    check_help({}, &seen);
    EXPECT_GT(seen, 30);
}

TEST(Usage, WrongArguments) {
    for (const words &w : std::vector<words>{{},
                                             {"show"},
                                             {"shout"},
                                             {"show", "nothing"},
                                             {"show", "routes", "--wrong"},
                                             {"show", "routes", "--group", "2001:db8::1"},
                                             {"show", "routes", "--dot", "--tree"},
                                             {"show", "route", "2001:db8::1"},
                                             {"show", "route", "any", "ff3e::1", "--match"},
                                             {"--timeout", "0", "shutdown"},
                                             {"completion", "fish"},
                                             {"load"}}) {
        const ended e = run(w);
        EXPECT_EQ(e.code, 2) << (w.empty() ? "" : w.back()) << e.err;
        EXPECT_EQ(e.out, "");
        EXPECT_NE(e.err, "");
    }
}

TEST(Usage, OptionsOfAllCommandsMayStandBehind) {
    const kit::run_dir dir;
    EXPECT_EQ(run({"show", "tables", "--run-dir", dir.path(), "--platform", "sim"}).code, 3);
}

std::string shell(const std::string &command) {
    FILE *pipe = popen(command.c_str(), "r");
    std::string out;
    char bytes[4096];
    for (size_t n = fread(bytes, 1, sizeof(bytes), pipe); n != 0;
         n = fread(bytes, 1, sizeof(bytes), pipe)) {
        out.append(bytes, n);
    }
    pclose(pipe);
    return out;
}

// What bash offers behind these words.
std::string offered(const std::string &script, const std::string &words_before,
                    const std::string &begun) {
    std::string line = "bash -c '. " + script + "; COMP_WORDS=(mfwd6ctl " + words_before + " \"" +
                       begun + "\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _mfwd6ctl; " +
                       "echo \"${COMPREPLY[*]}\"'";
    return shell(line);
}

TEST(Completion, OfBash) {
    const kit::run_dir dir;
    const std::string script = dir.path() + "/completion";
    const ended e = run({"completion", "bash"});
    ASSERT_EQ(e.code, 0);
    std::ofstream(script) << e.out;
    EXPECT_EQ(offered(script, "", "sh"), "show shutdown\n");
    EXPECT_EQ(offered(script, "show", "rou"), "routes route\n");
    EXPECT_EQ(offered(script, "show routes", "--do"), "--dot\n");
    EXPECT_EQ(offered(script, "--json show routes", "--run"), "--run-dir\n");
    EXPECT_EQ(offered(script, "show routes --vrf", ""), "\n");  // nobody knows
    EXPECT_EQ(offered(script, "load", dir.path() + "/compl"), script + "\n");
    EXPECT_EQ(offered(script, "add", "v"), "vrf\n");
}

TEST(Completion, OfZshNamesAllCommands) {
    const ended e = run({"completion", "zsh"});
    ASSERT_EQ(e.code, 0);
    EXPECT_EQ(e.out.rfind("#compdef mfwd6ctl\n", 0), 0U);
    for (const char *path : {"'show routes')", "'add output')", "'debug on')", "'shutdown')"}) {
        EXPECT_NE(e.out.find(path), std::string::npos) << path;
    }
}

}  // namespace
