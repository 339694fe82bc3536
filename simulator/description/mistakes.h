#pragma once

#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "kvsim/description.h"
#include "kvsim/description_reader.h"

namespace kvsim {

/**
 * While an object lives, the mistakes in a description that this thread meets are collected, so that all can
 * be shown. Without one, the first mistake ends the work.
 */
class Mistakes {
 public:
    Mistakes();
    ~Mistakes();
    Mistakes(const Mistakes&) = delete;
    Mistakes& operator=(const Mistakes&) = delete;

    /** Does work that ends early where enough mistakes were met. */
    static void collect(const std::function<void()>& work);

    /**
     * Throws one DescriptionError with all that was found, if anything was: a line for each, in their order
     * in the file, as "FILE:LINE:COLUMN: reason".
     */
    void throwIfAny(const std::filesystem::path& file) const;

    /**
     * Does a part of the work. A DescriptionError that it throws is collected, and the part is left where it
     * was; without an object it passes.
     */
    static void attempt(const std::function<void()>& part);

    /** How many were met: work that raises the number has a result that others must not build on. */
    static int count();

    /** Adds what is shown among the mistakes, if there are any. */
    void addHints(const std::vector<Hint>& hints);

 private:
    using Found = std::tuple<int, int, std::string>; /**< line, column, reason */

    void add(const DescriptionError& mistake);

    std::set<Found> found_;
    int met_ = 0;
};

}  // namespace kvsim
