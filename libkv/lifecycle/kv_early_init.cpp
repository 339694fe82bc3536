#include <memory>

#include <brevane/Service.h>
#include <kv/lifecycle.h>

namespace {

void (*early_init_func_)() = nullptr;
int is_early_init = 1;  // what runs before the function, static initialisers above all, is early as well
void* kvEarlyInitBlkInfo2 = nullptr;

class KelvaroService : public brevane::Service {
 public:
    static std::unique_ptr<brevane::Service> create() { return std::make_unique<KelvaroService>(); }

    void initialize() override {
        if (early_init_func_ != nullptr) {
            is_early_init = 1;
            early_init_func_();
            is_early_init = 0;
        }
    }
    void start() override {}
    void stop() override {}
};

[[maybe_unused]] const bool registered =
    brevane::Service::doRegister("KelvaroService", KelvaroService::create);

}  // namespace

void kv_register_early_init_function(void (*early_init_func)()) {
    early_init_func_ = early_init_func;
}

int kv_is_early_init(void) {
    return is_early_init;
}

void kv_early_init_set_blkInfo2(void* blkInfo2) {
    kvEarlyInitBlkInfo2 = blkInfo2;
}

void* kv_early_init_get_blkInfo2(void) {
    return kvEarlyInitBlkInfo2;
}
