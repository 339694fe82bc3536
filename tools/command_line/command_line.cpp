#include "command_line/command_line.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "command_line/nearest_word.h"

namespace command_line {

namespace {

constexpr int kNotWritten = 1;

/** What is wrong with the arguments. */
class UsageError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/** Usage lines that show all options and arguments, and lists without what CLI11 adds to names. */
class HelpFormatter : public CLI::Formatter {
 public:
    std::string make_usage(const CLI::App* parser, std::string name) const override {
        std::string usage = "Usage: " + name;
        for (const CLI::Option* option : parser->get_options()) {
            if (!option->get_positional() && option != parser->get_help_ptr()) {
                usage += " [" + option->get_name() + make_option_opts(option) + "]";
            }
        }
        for (const CLI::Option* option : parser->get_options()) {
            if (option->get_positional()) {
                usage += " " + (takesMany(*option) ? "[--] " + option->get_name() + " [ARGUMENT...]"
                                                   : option->get_name());
            }
        }
        return usage + (parser->get_subcommands({}).empty() ? "\n" : " COMMAND [ARGUMENT...]\n");
    }

    std::string make_option_opts(const CLI::Option* option) const override {
        return option->get_type_name().empty() ? "" : " " + option->get_type_name();
    }

 private:
    static bool takesMany(const CLI::Option& option) { return option.get_items_expected_max() > 1; }
};

/** The names of a parser's options, with their dashes. */
std::vector<std::string> optionNames(const CLI::App& parser) {
    std::vector<std::string> names;
    for (const CLI::Option* option : parser.get_options()) {
        if (!option->get_positional()) {
            names.push_back(option->get_name());
        }
    }
    return names;
}

/** Names the nearest of all names, or lists those of the kind where none is near. */
[[noreturn]] void refuseUnknown(const std::string& kind, const std::string& word,
                                const std::vector<std::string>& ofTheKind,
                                const std::vector<std::string>& allNames) {
    std::string reason = "unknown " + kind + " '" + word + "'";
    if (const auto nearest = command_line::nearestWord(word, allNames)) {
        throw UsageError(reason + "; did you mean '" + *nearest + "'?");
    }
    for (const std::string& name : ofTheKind) {
        reason += (&name == &ofTheKind.front() ? "; there are " : ", ") + name;
    }
    throw UsageError(reason);
}

bool isOption(const std::string& word) {
    return word.size() > 1 && word.starts_with('-');
}

/**
 * Moves from an option to the word that is its value, where it has one. Refuses an option that the parser
 * does not have and an empty value: no option has a use for one.
 */
template <typename Word>
Word lastWordOfOption(Word word, Word end, const CLI::App& parser) {
    const std::size_t equalSign = word->find('=');
    const std::string name = word->substr(0, equalSign);
    const CLI::Option* const option = parser.get_option_no_throw(name);
    if (option == nullptr) {
        const std::vector<std::string> names = optionNames(parser);
        refuseUnknown("option", name, names, names);
    }
    const bool isNext =
        equalSign == word->npos && option->get_items_expected_max() > 0 && std::next(word) != end;
    if (isNext) {
        ++word;
    }
    if (isNext ? word->empty() : equalSign == word->size() - 1) {
        throw UsageError(name + ": " + option->get_type_name() + " is empty");
    }
    return word;
}

}  // namespace

void Command::addFlag(const std::string& name, bool& value, const std::string& description) {
    parser_->add_flag(name, value, description);
}

void Command::addOption(const std::string& name, const std::string& valueName, std::string& value,
                        const std::string& description) {
    parser_->add_option(name, value, description)->type_name(valueName);
}

void Command::addArgument(const std::string& name, std::string& value, const std::string& description) {
    parser_->add_option(name, value, description)->required()->type_name("");
}

void Command::addUserCommand(std::vector<std::string>& words, const std::string& description) {
    parser_->add_option("COMMAND", words, description)->required()->type_name("");
    userCommand_ = &words;
}

void Command::setFooter(const std::string& text) {
    parser_->footer(text);
}

Program::Program(const std::string& name, const std::string& description)
    : parser_(std::make_unique<CLI::App>(description, name)) {
    parser_->set_help_flag("-h,--help", "Print this help and exit");
    parser_->set_version_flag("--version", name + " " KV_VERSION, "Print the version and exit");
    parser_->formatter(std::make_shared<HelpFormatter>());
    parser_->require_subcommand(0, 1);
}

Program::~Program() = default;

Command& Program::addCommand(const std::string& name, const std::string& summary) {
    return *commands_.emplace_back(std::make_unique<Command>(*parser_->add_subcommand(name, summary)));
}

void Program::setFooter(const std::string& text) {
    parser_->footer(text);
}

Command* Program::find(const std::string& name) const {
    const auto found =
        std::ranges::find(commands_, name, [](const auto& command) { return command->parser_->get_name(); });
    return found == commands_.end() ? nullptr : found->get();
}

void Program::refuseUnknownCommand(const std::string& word) const {
    std::vector<std::string> names;
    for (const auto& command : commands_) {
        names.push_back(command->parser_->get_name());
    }
    std::vector<std::string> allNames = names;
    std::ranges::copy(optionNames(*parser_), std::back_inserter(allNames));
    refuseUnknown("command", word, names, allNames);
}

/**
 * The arguments as CLI11 takes them, with a `--` in front of the first argument of a sub-command that ends
 * with a command of the user, as CLI11 would look for options behind it. Sets the sub-command, where there is
 * one.
 */
std::vector<std::string> Program::checkedArguments(int argc, char** argv, const Command*& command) const {
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    auto word = words.begin();
    const CLI::App* parser = parser_.get();
    for (; word != words.end() && *word != "--"; ++word) {
        if (isOption(*word)) {
            word = lastWordOfOption(word, words.end(), *parser);
        } else if (command == nullptr) {
            command = find(*word);
            if (command == nullptr) {
                refuseUnknownCommand(*word);
            }
            parser = command->parser_;
        } else if (command->userCommand_ != nullptr) {
            words.insert(word, "--");
            break;
        }
    }
    return words;
}

int Program::parseAndAct(int argc, char** argv, const Command*& command) {
    std::vector<std::string> words = checkedArguments(argc, argv, command);
    std::ranges::reverse(words);  // CLI11 takes the last one first
    parser_->parse(words);
    if (command == nullptr) {
        throw UsageError("COMMAND is required");
    }
    if (std::vector<std::string>* const userCommand = command->userCommand_) {
        if (userCommand->front() == "--") {
            userCommand->erase(userCommand->begin());
        }
        if (userCommand->empty()) {
            throw UsageError("COMMAND is required");
        }
    }
    return command->action_();
}

int Program::run(int argc, char** argv) {
    const Command* command = nullptr;
    const auto refuse = [&](const std::string& reason) {
        const std::string& program = parser_->get_name();
        const std::string name = command == nullptr ? program : program + " " + command->parser_->get_name();
        std::cerr << name << ": " << reason << (reason.ends_with('?') ? "" : ".") << " See '" << name
                  << " --help'.\n";
        return kUsageError;
    };
    int status = 0;
    try {
        status = parseAndAct(argc, argv, command);
    } catch (const CLI::Success& success) {
        parser_->exit(success);  // prints help or version
    } catch (const CLI::Error& error) {
        return refuse(error.what());
    } catch (const UsageError& error) {
        return refuse(error.what());
    }
    if (!std::cout.flush()) {
        std::cerr << parser_->get_name() << ": standard output: not everything could be written\n";
        return kNotWritten;
    }
    return status;
}

}  // namespace command_line
