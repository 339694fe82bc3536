// A model whose life the tests follow: does what its arguments say, and tells it on standard output.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>

#include <boost/log/trivial.hpp>

#include <brevane/Logger.h>
#include <kv/diagnostics.h>
#include <kv/hdlc.h>
#include <kv/lifecycle.h>
#include <kv/memory.h>

namespace {

struct Counter {
    Counter* self;
    int runs;
};

void countRun() {
    auto* counter = static_cast<Counter*>(kv_getPersistentMemory("counter"));
    if (counter == nullptr) {
        counter = static_cast<Counter*>(kv_allocPersistentMemory("counter", sizeof(Counter)));
        counter->self = counter;
    }
    std::printf("run %d\n", ++counter->self->runs);
}

void say(void* text) {
    std::printf("%s\n", static_cast<const char*>(text));
}

void addHandler(const char* text) {
    kv_add_exit_handler(say, const_cast<char*>(text));
}

struct Action {
    const char* name;
    void (*run)();
};

constexpr Action kActions[] = {
    {"init", kv_hdlc_initModelRun_v21b},
    {"set", kv_setModelInit},
    {"clear", kv_clearModelInit},
    {"terminate", kv_hdlc_terminateModelRun_v22a},
    {"tag", [] { std::printf("tagged %d\n", kv_tagModelRun()); }},
    {"first", [] { std::printf("first %d\n", kv_isFirstModelLoad()); }},
    {"reason", [] { std::printf("reason %s\n", pKvErrorStr); }},
    {"count", countRun},
    {"A", [] { addHandler("A"); }},
    {"B", [] { addHandler("B"); }},
    {"C", [] { addHandler("C"); }},
    {"adding", [] { kv_add_exit_handler([](void*) { addHandler("added"); }, nullptr); }},
    {"rerunning", [] { kv_add_exit_handler([](void*) { kv_exit_handler(); }, nullptr); }},
};

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    brevane::Logger::setUpSinks(boost::log::trivial::debug);
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        for (const Action& action : kActions) {
            if (name == action.name) {
                action.run();
            }
        }
    }
    return EXIT_SUCCESS;
}
