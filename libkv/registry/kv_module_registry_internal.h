#pragma once

#include <cstdint>
#include <cstdlib>
#include <limits>

#include <kv/registry.h>

/** The modules of one type; slot i holds module id i or null. */
struct _kv_module_list {
    kv_mod_info** modules;
    uint32_t Length;   /**< slots in modules */
    uint32_t nModules; /**< occupied slots */
};
using kv_module_list = _kv_module_list;

/** Root of the registry; slot t holds the modules of type t or null. */
struct _kv_module_type_list {
    kv_module_list** types;
    uint32_t Length;   /**< slots in types */
    uint32_t nTypes;   /**< occupied slots */
    uint32_t nModules; /**< modules of all types */
};
using kv_module_type_list = _kv_module_type_list;

/** The one registry of the process; null while no module is registered. */
extern kv_module_type_list* module_registry;

namespace kv::registry {

/**
 * Frees all blocks of a module that is about to go, without resetting its block_registry. The pointer arrays
 * are left allocated, unlike by kv_block_unregister(), so that one which a driver still holds stays valid.
 */
void cleanup_block_registry(const kv_mod_info& module);

template <typename Record>
Record* allocateRecord() {
    auto* record = static_cast<Record*>(std::malloc(sizeof(Record)));
    if (record != nullptr) {
        *record = {};
    }
    return record;
}

/** Grows a slot array so that it has exactly the slot @p index as its last. */
template <typename Entry>
bool growTo(Entry**& slots, uint32_t& length, uint32_t index) {
    if (index == std::numeric_limits<uint32_t>::max()) {
        return false;
    }
    const uint32_t newLength = index + 1;
    auto* grown = static_cast<Entry**>(std::realloc(slots, newLength * sizeof(Entry*)));
    if (grown == nullptr) {
        return false;
    }
    for (uint32_t slot = length; slot < newLength; ++slot) {
        grown[slot] = nullptr;
    }
    slots = grown;
    length = newLength;
    return true;
}

template <typename Entry>
Entry* slotOrNull(Entry** slots, uint32_t length, uint32_t index) {
    return index < length ? slots[index] : nullptr;
}

}  // namespace kv::registry
