#include "command_line/command_line.h"

#include <algorithm>
#include <iostream>
#include <numeric>
#include <stdexcept>

#include <CLI/CLI.hpp>

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

std::string withoutDashes(const std::string& name) {
    return name.substr(std::min(name.find_first_not_of('-'), name.size()));
}

/** How many letters have to be inserted, deleted or replaced to make one word the other. */
std::size_t distanceBetween(const std::string& one, const std::string& other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t replaced = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

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

[[noreturn]] void refuseUnknown(const std::string& kind, const std::string& word,
                                const std::vector<std::string>& names) {
    const std::string nearest = *std::ranges::min_element(names, {}, [&](const std::string& name) {
        return distanceBetween(withoutDashes(word), withoutDashes(name));
    });
    throw UsageError("unknown " + kind + " '" + word + "'; did you mean '" + nearest + "'?");
}

bool isOption(const std::string& word) {
    return word.size() > 1 && word.starts_with('-');
}

/** Whether the word after an option is the option's value; refuses an option that the parser does not have.
 */
bool isFollowedByValue(const std::string& word, const CLI::App& parser) {
    const std::size_t equalSign = word.find('=');
    const std::string name = word.substr(0, equalSign);
    const CLI::Option* const option = parser.get_option_no_throw(name);
    if (option == nullptr) {
        refuseUnknown("option", name, optionNames(parser));
    }
    return equalSign == word.npos && option->get_items_expected_max() > 0;
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
    std::ranges::copy(optionNames(*parser_), std::back_inserter(names));
    refuseUnknown("command", word, names);
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
            if (isFollowedByValue(*word, *parser) && std::next(word) != words.end()) {
                ++word;
            }
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
