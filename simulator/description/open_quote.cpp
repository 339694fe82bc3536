#include "description/open_quote.h"

#include <optional>
#include <sstream>

#include <yaml-cpp/anchor.h>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include "kvsim/description.h"

namespace kvsim {

namespace {

/** Whether a quote is followed by the end of its line before that of the quoted text. */
bool spansLines(const std::string& text, std::size_t begin) {
    const char quote = text[begin];
    for (std::size_t i = begin + 1; i < text.size() && text[i] != '\n'; ++i) {
        const bool isEscape = quote == '"' ? text[i] == '\\' : text.compare(i, 2, "''") == 0;
        if (isEscape) {
            ++i;
        } else if (text[i] == quote) {
            return false;
        }
    }
    return true;
}

/** Looks at the quoted scalars of a file for one that holds a mark or, as the last, spans lines. */
class QuoteFinder : public YAML::EventHandler {
 public:
    QuoteFinder(const std::string& text, const std::string& mark) : text_(text), mark_(mark) {}

    /** Refuses the quote that took in the mark. */
    void refuseQuoteOfMark() const { refuseQuoteAt(ofMark_); }
    /** Refuses the last quote where it spans lines: the parser failed on what follows it. */
    void refuseLastQuote() const { refuseQuoteAt(last_); }

    void OnScalar(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t /*anchor*/,
                  const std::string& value) override {
        const auto begin = static_cast<std::size_t>(mark.pos);
        const bool isQuoted = begin < text_.size() && (text_[begin] == '"' || text_[begin] == '\'');
        last_ = isQuoted && spansLines(text_, begin) ? std::optional(mark) : std::nullopt;
        if (value.find(mark_) != std::string::npos) {
            ofMark_ = mark;
        }
    }
    void OnDocumentStart(const YAML::Mark& /*mark*/) override {}
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark& /*mark*/, YAML::anchor_t /*anchor*/) override {}
    void OnAlias(const YAML::Mark& /*mark*/, YAML::anchor_t /*anchor*/) override {}
    void OnSequenceStart(const YAML::Mark& /*mark*/, const std::string& /*tag*/, YAML::anchor_t /*anchor*/,
                         YAML::EmitterStyle::value /*style*/) override {}
    void OnSequenceEnd() override {}
    void OnMapStart(const YAML::Mark& /*mark*/, const std::string& /*tag*/, YAML::anchor_t /*anchor*/,
                    YAML::EmitterStyle::value /*style*/) override {}
    void OnMapEnd() override {}

 private:
    static void refuseQuoteAt(const std::optional<YAML::Mark>& mark) {
        if (mark) {
            throw DescriptionError("the quote that begins here is not closed",
                                   {.line = mark->line + 1, .column = mark->column + 1});
        }
    }

    const std::string& text_;
    std::string mark_;
    std::optional<YAML::Mark> ofMark_;
    std::optional<YAML::Mark> last_;
};

}  // namespace

void refuseUnclosedQuote(const std::string& text) {
    const std::string comment = "# behind the end of the description";
    std::istringstream stream(text + "\n" + comment + "\n");
    YAML::Parser parser(stream);
    QuoteFinder finder(text, comment);
    try {
        while (parser.HandleNextDocument(finder)) {
        }
    } catch (const YAML::ParserException&) {
        finder.refuseLastQuote();
        return;  // any other error is reported by LoadAll(), which reads the text without the comment
    }
    finder.refuseQuoteOfMark();
}

}  // namespace kvsim
