// completion: scripts for shells, made from the commands that the program has.
#include <fmt/format.h>

#include <memory>

#include "apps/mfwd6ctl/commands.h"
#include "apps/mfwd6ctl/failure.h"
#include "apps/mfwd6ctl/output/output.h"

namespace ctl {
namespace {

// What may follow one command: its subcommands, and its options besides those of all commands.
struct entry {
    std::string path;                                        // "show routes"
    std::vector<std::pair<std::string, std::string>> words;  // and what they mean
    std::string with_value;  // options that take a value, "|--vrf|--group|"
    bool takes_file = false;
};

std::string first_line(const std::string &text) {
    return text.substr(0, text.find('\n'));
}

void add_options(const CLI::App &app, entry &e) {
    for (const CLI::Option *option : app.get_options()) {
        for (const std::string &name : option->get_lnames()) {
            e.words.emplace_back("--" + name, first_line(option->get_description()));
            if (option->get_items_expected_max() > 0) {
                e.with_value += "--" + name + "|";
            }
        }
        e.takes_file |= option->get_positional() && option->get_type_name() == "FILE";
    }
}

void collect(const CLI::App &app, const std::string &path, std::vector<entry> &all) {
    entry e;
    e.path = path;
    const auto children =
        app.get_subcommands([](const CLI::App *child) { return !child->get_name().empty(); });
    for (const CLI::App *child : children) {
        e.words.emplace_back(child->get_name(), first_line(child->get_description()));
    }
    add_options(app, e);
    all.push_back(e);
    for (const CLI::App *child : children) {
        collect(*child, path.empty() ? child->get_name() : path + " " + child->get_name(), all);
    }
}

std::vector<entry> entries_of(const CLI::App &program) {
    std::vector<entry> all;
    collect(program, "", all);
    // What may be said with every command.
    entry everywhere;
    add_options(program, everywhere);
    for (entry &e : all) {
        if (!e.path.empty()) {
            for (const auto &word : everywhere.words) {
                const bool has = std::any_of(e.words.begin(), e.words.end(),
                                             [&](const auto &w) { return w.first == word.first; });
                if (!has && word.first != "--version" && word.first != "--help-all") {
                    e.words.push_back(word);
                }
            }
            e.with_value += everywhere.with_value;
        }
    }
    return all;
}

// Both scripts find the command that the line names by taking words as long as they lead further.
constexpr const char *bash_begin =
    R"(# bash completion for mfwd6ctl; put into a folder of bash-completion, or source it.
_mfwd6ctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} path= next word words values file
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        next=${path:+$path }$word
        _mfwd6ctl_words "$next" && path=$next
    done
    _mfwd6ctl_words "$path"
    case "$values" in
        *"|$prev|"*)
            case "$prev" in --run-dir) COMPREPLY=($(compgen -d -- "$cur")) ;; esac
            return ;;
    esac
    if [[ -n $file && $cur != -* ]]; then
        COMPREPLY=($(compgen -f -- "$cur"))
    else
        COMPREPLY=($(compgen -W "$words" -- "$cur"))
    fi
}
_mfwd6ctl_words() {
    case "$1" in
)";
constexpr const char *bash_end = R"(        *) return 1 ;;
    esac
}
complete -F _mfwd6ctl mfwd6ctl
)";

std::string bash_script(const std::vector<entry> &all) {
    std::string script = bash_begin;
    for (const entry &e : all) {
        std::string words;
        for (const auto &[word, meaning] : e.words) {
            words += (words.empty() ? "" : " ") + word;
        }
        script += fmt::format("        '{}') words='{}' values='|{}' file={} ;;\n", e.path, words,
                              e.with_value, e.takes_file ? "1" : "");
    }
    return script + bash_end;
}

constexpr const char *zsh_begin = R"(#compdef mfwd6ctl
# zsh completion for mfwd6ctl; put into a folder of $fpath as _mfwd6ctl.
_mfwd6ctl() {
    local path_so_far= next word values file i
    local -a meanings
    for (( i = 2; i < CURRENT; i++ )); do
        next=${path_so_far:+$path_so_far }${words[i]}
        _mfwd6ctl_words "$next" && path_so_far=$next
    done
    _mfwd6ctl_words "$path_so_far"
    if [[ $values == *"|${words[CURRENT-1]}|"* ]]; then
        [[ ${words[CURRENT-1]} == --run-dir ]] && _files -/
        return
    fi
    if [[ -n $file && ${words[CURRENT]} != -* ]]; then
        _files
    else
        _describe -t commands 'mfwd6ctl' meanings
    fi
}
_mfwd6ctl_words() {
    case "$1" in
)";
constexpr const char *zsh_end = R"(        *) return 1 ;;
    esac
}
if [[ $funcstack[1] == _mfwd6ctl ]]; then _mfwd6ctl "$@"; else compdef _mfwd6ctl mfwd6ctl; fi
)";

// In single quotes, for a list of WORD:MEANING.
std::string zsh_quoted(const std::string &text) {
    std::string result;
    for (const char c : text) {
        if (c == '\'') {
            result += "'\\''";
        } else if (c == ':') {
            result += "\\:";
        } else {
            result += c;
        }
    }
    return result;
}

std::string zsh_script(const std::vector<entry> &all) {
    std::string script = zsh_begin;
    for (const entry &e : all) {
        std::string words;
        for (const auto &[word, meaning] : e.words) {
            words += fmt::format(" '{}:{}'", zsh_quoted(word), zsh_quoted(meaning));
        }
        script += fmt::format("        '{}') meanings=({} ) values='|{}' file={} ;;\n", e.path,
                              words, e.with_value, e.takes_file ? "1" : "");
    }
    return script + zsh_end;
}

}  // namespace

void add_completion(CLI::App &program) {
    auto shell = std::make_shared<std::string>();
    CLI::App *command =
        program.add_subcommand("completion", "Print a completion script for a shell");
    command->add_option("shell", *shell, "bash or zsh")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh"}))
        ->type_name("SHELL");
    command->footer(
        "Examples:\n"
        "  . <(mfwd6ctl completion bash)\n"
        "  mfwd6ctl completion zsh > ~/.zfunc/_mfwd6ctl");
    command->callback([shell, &program] {
        const std::vector<entry> all = entries_of(program);
        put(*shell == "bash" ? bash_script(all) : zsh_script(all));
    });
}

}  // namespace ctl
