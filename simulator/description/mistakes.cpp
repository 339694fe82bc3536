#include "description/mistakes.h"

#include "layout/format.h"

namespace kvsim {

namespace {

/** More are not looked for: a file that refers to its own parts may have no end of them. */
constexpr int kMaxMistakes = 20;

/** No DescriptionError, so that it ends all parts. */
struct EnoughMistakes {};

thread_local Mistakes* collector = nullptr;

}  // namespace

Mistakes::Mistakes() {
    collector = this;
}

Mistakes::~Mistakes() {
    collector = nullptr;
}

void Mistakes::add(const DescriptionError& mistake) {
    found_.emplace(mistake.position().line, mistake.position().column, mistake.what());
    if (++met_ == kMaxMistakes) {
        throw EnoughMistakes();
    }
}

void Mistakes::attempt(const std::function<void()>& part) {
    try {
        part();
    } catch (const DescriptionError& mistake) {
        if (collector == nullptr) {
            throw;
        }
        collector->add(mistake);
    }
}

void Mistakes::collect(const std::function<void()>& work) {
    try {
        attempt(work);
    } catch (const EnoughMistakes&) {
        // What was found is shown.
    }
}

int Mistakes::count() {
    return collector == nullptr ? 0 : collector->met_;
}

void Mistakes::addHints(const std::vector<Hint>& hints) {
    for (const auto& [text, position] : hints) {
        found_.emplace(position.line, position.column, "hint: " + text);
    }
}

void Mistakes::throwIfAny(const std::filesystem::path& file) const {
    if (met_ == 0) {
        return;
    }
    std::string text;
    for (const auto& [line, column, reason] : found_) {
        text += (text.empty() ? "" : "\n") + file.string() +
                (line == 0 ? "" : format(":%d:%d", line, column)) + ": " + reason;
    }
    if (met_ == kMaxMistakes) {
        text += "\n" + file.string() + ": there may be more";
    }
    const auto& [line, column, reason] = *found_.begin();
    throw DescriptionError(text, {.line = line, .column = column});
}

}  // namespace kvsim
