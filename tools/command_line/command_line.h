#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace command_line {

inline constexpr int kUsageError = 2;

/** A sub-command. What its options and arguments are stored in must outlive Program::run(). */
class Command {
 public:
    explicit Command(CLI::App& parser) : parser_(&parser) {}

    /** Adds an option without a value. @param name  with its dashes */
    void addFlag(const std::string& name, bool& value, const std::string& description);

    /** Adds an option with a value; an empty one is refused. @param valueName  its name in the help */
    void addOption(const std::string& name, const std::string& valueName, std::string& value,
                   const std::string& description);

    /** Adds a required argument. */
    void addArgument(const std::string& name, std::string& value, const std::string& description);

    /**
     * Lets the arguments end with a command of the user, which is required. Options stand before the first
     * argument; all that follows the other arguments belongs to that command. A `--` in front of it is
     * removed.
     */
    void addUserCommand(std::vector<std::string>& words, const std::string& description);

    /** Sets the text below the help. */
    void setFooter(const std::string& text);

    /** Sets what the sub-command does. @param action  returns the exit status of the program */
    void setAction(std::function<int()> action) { action_ = std::move(action); }

 private:
    friend class Program;

    CLI::App* parser_;
    std::vector<std::string>* userCommand_ = nullptr;
    std::function<int()> action_;
};

/**
 * A program with sub-commands, `--help` and `--version`.
 *
 * CLI11 is behind it. Its headers are compiled in this place only, since they take seconds.
 */
class Program {
 public:
    Program(const std::string& name, const std::string& description);
    ~Program();

    /** Adds a sub-command, which lives as long as the program. */
    Command& addCommand(const std::string& name, const std::string& summary);

    /** Sets the text below the help of the program and of sub-commands without a text of their own. */
    void setFooter(const std::string& text);

    /**
     * Parses the arguments and runs the sub-command. Returns its exit status, 0 after help or version, and 1
     * where standard output could not be written. Wrong usage is reported on standard error in one line,
     * which for an unknown command or option names the nearest or lists those there are, and returns
     * kUsageError. Exceptions of the action pass.
     */
    int run(int argc, char** argv);

 private:
    std::unique_ptr<CLI::App> parser_;
    std::vector<std::unique_ptr<Command>> commands_;

    Command* find(const std::string& name) const;
    void refuseUnknownCommand(const std::string& word) const;
    std::vector<std::string> checkedArguments(int argc, char** argv, const Command*& command) const;
    int parseAndAct(int argc, char** argv, const Command*& command);
};

}  // namespace command_line
