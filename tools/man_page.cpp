#include "man_page.h"

#include <fmt/format.h>

#include <vector>

namespace zorv::tools {
namespace {

/// Nothing in it is a request or an escape of the page's language.
std::string plain(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '\\' || c == '-') result += '\\';
        result += c == '\\' ? 'e' : c;
    }
    return !result.empty() && (result[0] == '.' || result[0] == '\'') ? "\\&" + result : result;
}

/// What an option takes, without its limits: "TEXT", "INT", or "fca|motion|a2x".
std::string valueOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    const size_t colon = type.find(':'), open = type.find('{'), close = type.find('}');
    if (open == colon + 1 && close != type.npos) {
        std::string choice = type.substr(open + 1, close - open - 1);
        for (char& c : choice) c = c == ',' ? '|' : c;
        return choice;
    }
    return type.substr(0, colon);
}

std::string optionEntry(const CLI::Option& option) {
    std::string entry = ".TP\n";
    if (option.get_positional()) {
        entry += fmt::format(".I {}\n", plain(option.get_name()));
    } else {
        entry += fmt::format(".B {}", plain(option.get_name(false, true)));
        // Flags take nothing.
        if (option.get_type_size() != 0)
            entry += fmt::format(" \\fI{}\\fR", plain(valueOf(option)));
        entry += '\n';
    }
    entry += plain(option.get_description());
    if (const std::string value = option.get_default_str(); !value.empty()) {
        entry += plain(fmt::format(" (default: {})", value));
    }
    return entry + (option.get_required() ? "; required\n" : "\n");
}

std::string commandEntry(const CLI::App& command) {
    std::string usage = command.get_name(), entries;
    for (const CLI::Option* option : command.get_options()) {
        if (option == command.get_help_ptr()) continue;
        if (option->get_positional()) usage += " " + option->get_name();
        entries += optionEntry(*option);
    }
    return fmt::format(".SS zorv {} [OPTIONS]\n{}\n{}", plain(usage),
                       plain(command.get_description()), entries);
}

}  // namespace

std::string manPage(const CLI::App& app, const std::string& version) {
    std::string page = fmt::format(
        ".TH ZORV 1 \"\" \"{0}\" \"User Commands\"\n"
        ".SH NAME\nzorv \\- {1}\n"
        ".SH SYNOPSIS\n.B zorv\n.I COMMAND\n[OPTIONS]\n.br\n.B zorv\n\\-\\-help | \\-\\-version\n"
        ".SH DESCRIPTION\n{1}. Every command has a\n.B \\-\\-help\nof its own.\n"
        ".SH COMMANDS\n",
        plain(version), plain(app.get_description()));
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        page += commandEntry(*command);
    }
    return page +
           ".SH EXIT STATUS\n"
           ".TP\n0\nSuccess; of\n.BR inspect :\nthe bundle is whole; of\n.BR doctor :\n"
           "the machine carries a live session.\n"
           ".TP\n1\nA failure, told in one line on standard error.\n"
           ".TP\n2\nWrong usage; of\n.BR doctor :\nnothing could be found out.\n"
           ".TP\n130\nInterrupted; nothing was written.\n"
           ".SH ENVIRONMENT\nThe library's variables, see environment.md among its pages.\n"
           ".TP\n.B ZORV_VERBOSE\n1 shows the messages of the media libraries.\n";
}

}  // namespace zorv::tools
