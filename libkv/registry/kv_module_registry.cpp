#include <cstdlib>

#include <kv/diagnostics.h>

#include "diagnostics/kv_error_text.h"
#include "diagnostics/kv_print.h"
#include "registry/kv_module_registry_internal.h"

kv_module_type_list* module_registry = nullptr;

namespace {

using kv::setErrorText;
using namespace kv::registry;

kv_module_list* moduleListOf(uint32_t type) {
    return module_registry == nullptr ? nullptr
                                      : slotOrNull(module_registry->types, module_registry->Length, type);
}

bool create_module_registry() {
    kv::print(kv_trace, "Creating module registry\n");
    module_registry = allocateRecord<kv_module_type_list>();
    if (module_registry == nullptr) {
        setErrorText("Failed to allocate memory for module registry\n");
        return false;
    }
    kv::print(kv_trace, "Module registry: 0x%p\n", static_cast<void*>(module_registry));
    return true;
}

bool increase_module_registry_size(uint32_t type) {
    kv::print(kv_trace, "Enlarge registry from %d to %d module types\n", module_registry->Length, type + 1);
    if (!growTo(module_registry->types, module_registry->Length, type)) {
        setErrorText("Failed to allocate memory for new module type list\n");
        return false;
    }
    kv::print(kv_trace, "New module type list: 0x%p\n", static_cast<void*>(module_registry->types));
    return true;
}

bool create_module_list(uint32_t type) {
    kv::print(kv_trace, "Creating new module list struct for type %d\n", type);
    auto* list = allocateRecord<kv_module_list>();
    if (list == nullptr) {
        setErrorText("Failed to allocate memory for module list\n");
        return false;
    }
    module_registry->types[type] = list;
    ++module_registry->nTypes;
    kv::print(kv_trace, "New module list struct : 0x%p\n", static_cast<void*>(list));
    return true;
}

bool increase_module_list_size(kv_module_list& list, uint32_t id) {
    kv::print(kv_trace, "Enlarge module list from %d to %d modules\n", list.Length, id + 1);
    if (!growTo(list.modules, list.Length, id)) {
        setErrorText("Failed to allocate memory for new module list\n");
        return false;
    }
    kv::print(kv_trace, "New module list: 0x%p\n", static_cast<void*>(list.modules));
    return true;
}

/** The list that has a slot for the module, built as far as it was missing; null when memory is exhausted. */
kv_module_list* moduleListWithSlot(uint32_t type, uint32_t id) {
    if (module_registry == nullptr && !create_module_registry()) {
        return nullptr;
    }
    if (type >= module_registry->Length && !increase_module_registry_size(type)) {
        return nullptr;
    }
    if (module_registry->types[type] == nullptr && !create_module_list(type)) {
        return nullptr;
    }
    kv_module_list* list = module_registry->types[type];
    if (id >= list->Length && !increase_module_list_size(*list, id)) {
        return nullptr;
    }
    return list;
}

void removeEmptyModuleList(uint32_t type) {
    kv::print(kv_debug, "Cleaning up module list for type %d\n", type);
    std::free(module_registry->types[type]->modules);
    std::free(module_registry->types[type]);
    module_registry->types[type] = nullptr;
    --module_registry->nTypes;
}

void removeEmptyModuleRegistry() {
    kv::print(kv_debug, "Cleaning up module registry base\n");
    std::free(module_registry->types);
    std::free(module_registry);
    module_registry = nullptr;
}

}  // namespace

kv_mod_info* kv_module_register(uint32_t mod_type, uint32_t mod_id) {
    kv::print(kv_debug, "Register module [type %d, id %d]\n", mod_type, mod_id);
    kv_module_list* list = moduleListWithSlot(mod_type, mod_id);
    if (list == nullptr) {
        return nullptr;
    }
    if (list->modules[mod_id] != nullptr) {
        setErrorText("Module already registered\n");
        return nullptr;
    }
    auto* module = allocateRecord<kv_mod_info>();
    if (module == nullptr) {
        setErrorText("Failed to allocate memory for new module registry entry\n");
        return nullptr;
    }
    module->type = mod_type;
    module->id = mod_id;
    list->modules[mod_id] = module;
    ++list->nModules;
    ++module_registry->nModules;
    return module;
}

kv_mod_info* kv_module_get_single(uint32_t mod_type, uint32_t mod_id) {
    const kv_module_list* list = moduleListOf(mod_type);
    return list == nullptr ? nullptr : slotOrNull(list->modules, list->Length, mod_id);
}

void* kv_module_get_custom_data(uint32_t mod_type, uint32_t mod_id) {
    const kv_mod_info* module = kv_module_get_single(mod_type, mod_id);
    return module == nullptr ? nullptr : module->custom_data;
}

void* kv_module_alloc_custom_data(kv_mod_info* module, uint32_t nBytes) {
    module->custom_data = std::malloc(nBytes);
    return module->custom_data;
}

int32_t kv_module_get(kv_mod_list* modules, uint32_t mod_type, int32_t mod_id) {
    if (mod_id >= 0) {
        *modules = static_cast<kv_mod_list>(std::malloc(sizeof(kv_mod_info*)));
        kv_mod_info* module = kv_module_get_single(mod_type, static_cast<uint32_t>(mod_id));
        if (module == nullptr || *modules == nullptr) {
            return 0;
        }
        (*modules)[0] = module;
        return 1;
    }

    // Callers have registered a module before they ask for all of a type, so there is a root.
    const kv_module_list* list = slotOrNull(module_registry->types, module_registry->Length, mod_type);
    if (list == nullptr) {
        return 0;
    }
    *modules = static_cast<kv_mod_list>(std::malloc(list->nModules * sizeof(kv_mod_info*)));
    if (*modules == nullptr) {
        return 0;
    }
    uint32_t copied = 0;
    for (uint32_t id = 0; id < list->Length && copied < list->nModules; ++id) {
        if (list->modules[id] != nullptr) {
            (*modules)[copied++] = list->modules[id];
        }
    }
    return static_cast<int32_t>(copied);
}

void kv_module_unregister(uint32_t mod_type, uint32_t mod_id) {
    kv::print(kv_debug, "Unregister module [type %d, id %d]\n", mod_type, mod_id);
    kv_mod_info* module = kv_module_get_single(mod_type, mod_id);
    if (module == nullptr) {
        kv::print(kv_debug, "No module registered for: [type %d, id %d]\n", mod_type, mod_id);
        return;
    }
    if (module->block_registry != nullptr) {
        cleanup_block_registry(*module);
    }
    kv_module_list* list = module_registry->types[mod_type];
    std::free(module);
    list->modules[mod_id] = nullptr;
    --module_registry->nModules;
    --list->nModules;

    if (list->nModules == 0) {
        removeEmptyModuleList(mod_type);
    }
    if (module_registry->nTypes == 0) {
        removeEmptyModuleRegistry();
    }
}
