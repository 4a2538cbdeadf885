// mira completion: what the shells complete, made from the commands and options there are. Tables
// come by their extension; fields are asked of the first table of the line.
#include <algorithm>

#include "command/command.h"
#include "tables.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/page/text.h"
#include "terminal/name.h"

namespace mira::tool {
namespace {

struct Options {
    const CLI::App* program = nullptr;
    std::string shell, fieldsOf;
};

/// Options whose value is a field, or a list that ends in one.
constexpr std::string_view kFieldOptions[] = {"--fields", "--exclude", "--sort", "--as-text"};

bool takesValue(const CLI::Option& option) { return option.get_items_expected_max() > 0; }
bool isPositional(const CLI::Option& option) {
    return option.get_lnames().empty() && option.get_snames().empty();
}

/// "--fields", "-f"
std::vector<std::string> spellingsOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
    for (const std::string& name : option.get_snames()) names.push_back("-" + name);
    return names;
}

bool takesFields(const CLI::Option& option) {
    const std::vector<std::string> names = spellingsOf(option);
    return std::any_of(names.begin(), names.end(), [](const std::string& name) {
        return std::find(std::begin(kFieldOptions), std::end(kFieldOptions), name) !=
               std::end(kFieldOptions);
    });
}

/// The first sentence, without quotes, which would end those of the scripts.
std::string shortText(std::string text) {
    constexpr std::string_view kSpecial = "'\"`[]$\\:";
    std::erase_if(text, [&](char c) { return kSpecial.find(c) != std::string_view::npos; });
    return text.substr(0, text.find_first_of(".;\n"));
}

template <typename Each>
void eachCommand(const CLI::App& program, Each each) {
    for (const CLI::App* command : program.get_subcommands(nullptr)) each(*command);
}

template <typename Each>
void eachOption(const CLI::App& command, Each each) {
    for (const CLI::Option* option : command.get_options()) {
        if (!isPositional(*option)) each(*option);
    }
}

std::string namesOfCommands(const CLI::App& program) {
    std::vector<std::string> names;
    eachCommand(program, [&](const CLI::App& command) { names.push_back(command.get_name()); });
    return joined(names, " ");
}

constexpr const char* kBashHead = R"sh(# bash completion for mira
_mira() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} options= table list=
    COMPREPLY=()
    case ${COMP_CWORD}:${COMP_WORDS[1]} in
)sh";
constexpr const char* kBashMiddle = R"sh(    esac
    if [ "$COMP_CWORD" = 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
        return
    fi
    case $before in
)sh";
constexpr const char* kBashTail = R"sh()
            [[ $word == *,* ]] && list=${word%,*},
            for table in "${COMP_WORDS[@]:2:COMP_CWORD-3}"; do
                mapfile -t COMPREPLY < <(compgen -P "$list" -W \
                    "$(mira completion --fields-of "$table" 2>/dev/null)" -- "${word##*,}")
                [ ${#COMPREPLY[@]} -gt 0 ] && break
            done
            compopt -o nospace
            return
            ;;
    esac
    case $word in
        -*) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word") ;;
        *)
            mapfile -t COMPREPLY < <(compgen -f -X '!*.@([dD][bB][fF]|[cC][sS][vV])' -- "$word"
                compgen -d -- "$word")
            compopt -o filenames
            ;;
    esac
}
shopt -s extglob
complete -F _mira mira
)sh";

std::string bashScript(const CLI::App& program) {
    std::string script =
        textOf(kBashHead, "        1:*) options=\"", namesOfCommands(program), "\" ;;\n");
    std::vector<std::string> fields;
    eachCommand(program, [&](const CLI::App& command) {
        std::vector<std::string> all;
        eachOption(command, [&](const CLI::Option& option) {
            for (const std::string& name : spellingsOf(option)) {
                all.push_back(name);
                if (takesFields(option)) fields.push_back(name);
            }
        });
        script +=
            textOf("        *:", command.get_name(), ") options=\"", joined(all, " "), "\" ;;\n");
    });
    std::sort(fields.begin(), fields.end());
    fields.erase(std::unique(fields.begin(), fields.end()), fields.end());
    return textOf(script, kBashMiddle, "        ", joined(fields, "|"), kBashTail);
}

constexpr const char* kZshHead = R"sh(#compdef mira
_mira_fields() {
    local table
    for table in ${words[2,-2]}; do
        local -a names=(${(f)"$(mira completion --fields-of $table 2>/dev/null)"})
        (( $#names )) && { _sequence compadd -a names; return }
    done
}
_mira() {
    local -a commands=(
)sh";
constexpr const char* kZshMiddle = R"sh(    )
    if (( CURRENT == 2 )); then
        _describe command commands
        return
    fi
    local command=$words[2]
    shift words
    (( CURRENT-- ))
    case $command in
)sh";
constexpr const char* kZshTables = R"sh( \
            '*:table:_files -g "*.(#i)(dbf|csv)(-.)"' ;;
)sh";

std::string zshScript(const CLI::App& program) {
    std::string script = kZshHead;
    eachCommand(program, [&](const CLI::App& command) {
        script += textOf("        '", command.get_name(), ':', shortText(command.get_description()),
                         "'\n");
    });
    script += kZshMiddle;
    eachCommand(program, [&](const CLI::App& command) {
        script += textOf("        ", command.get_name(), ") _arguments");
        eachOption(command, [&](const CLI::Option& option) {
            const char* const value = !takesValue(option)   ? ""
                                      : takesFields(option) ? ":field:_mira_fields"
                                                            : ":value:_files";
            for (const std::string& name : spellingsOf(option)) {
                script += textOf(" \\\n            '", name, '[',
                                 shortText(option.get_description()), ']', value, '\'');
            }
        });
        script += kZshTables;
    });
    return script + "    esac\n}\n_mira \"$@\"\n";
}

constexpr const char* kFishHead = R"sh(# fish completion for mira
function __mira_fields
    for table in (commandline -opc)[3..-1]
        mira completion --fields-of $table 2>/dev/null; and return
    end
end
complete -c mira -n __fish_use_subcommand -f
)sh";

std::string fishScript(const CLI::App& program) {
    std::string script = kFishHead;
    eachCommand(program, [&](const CLI::App& command) {
        const std::string& name = command.get_name();
        script += textOf("complete -c mira -n __fish_use_subcommand -a ", name, " -d '",
                         shortText(command.get_description()), "'\n");
        eachOption(command, [&](const CLI::Option& option) {
            script += textOf("complete -c mira -n '__fish_seen_subcommand_from ", name, "'");
            for (const std::string& spelling : option.get_lnames()) script += " -l " + spelling;
            for (const std::string& spelling : option.get_snames()) script += " -s " + spelling;
            if (takesValue(option))
                script += takesFields(option) ? " -x -a '(__mira_fields)'" : " -r";
            script += textOf(" -d '", shortText(option.get_description()), "'\n");
        });
    });
    return script;
}

struct Shell {
    std::string_view name;
    std::string (*script)(const CLI::App&);
};
constexpr Shell kShells[] = {{"bash", bashScript}, {"zsh", zshScript}, {"fish", fishScript}};

void putFields(Output& out, const std::string& name) {
    const auto table = openTable(name, {});
    for (const Column& column : table->columns) out.put(column.name + '\n');
}

Status run(const Options& options) {
    Output out(targetOf("-"), false);
    const auto* const shell = std::find_if(std::begin(kShells), std::end(kShells),
                                           [&](const Shell& s) { return s.name == options.shell; });
    if (!options.fieldsOf.empty()) {
        putFields(out, options.fieldsOf);
    } else if (shell == std::end(kShells)) {
        refuse("completion is there for bash, zsh and fish");
    } else {
        out.put(inOwnName(shell->script(*options.program)));
    }
    out.finish();
    return kDone;
}

}  // namespace

void addCompletion(CLI::App& program, Job& job) {
    const auto [command, options] = newCommand(
        program, job, "completion", "Print what a shell needs to complete command lines", run,
        "Examples:\n"
        "  mira completion bash > ~/.local/share/bash-completion/completions/mira\n"
        "  mira completion fish > ~/.config/fish/completions/mira.fish\n\n"
        "Packages install it for bash, zsh and fish.");
    options.program = &program;
    command.add_option("shell", options.shell, "bash, zsh or fish")->type_name("SHELL");
    command
        .add_option("--fields-of", options.fieldsOf,
                    "Print the fields of a table instead, a line each")
        ->type_name("TABLE");
}

}  // namespace mira::tool
