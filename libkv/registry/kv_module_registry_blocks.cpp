#include <algorithm>
#include <cstdlib>

#include <kv/diagnostics.h>

#include "diagnostics/kv_error_text.h"
#include "diagnostics/kv_print.h"
#include "registry/kv_module_registry_internal.h"

namespace {

using kv::setErrorText;
using namespace kv::registry;

/**
 * A block list as it is allocated: what callers see, and behind it a hint that keeps registration by uid from
 * walking the list. Every slot below firstFree is occupied.
 */
struct HintedBlockList : kv_block_list {
    uint32_t firstFree;
};

HintedBlockList& hinted(kv_block_list& list) {
    return static_cast<HintedBlockList&>(list);
}

kv_block_list* blockListOf(const kv_mod_info& module, uint32_t type) {
    const kv_block_type_list* root = module.block_registry;
    return root == nullptr ? nullptr : slotOrNull(root->types, root->Length, type);
}

bool create_block_registry(kv_mod_info& module) {
    kv::print(kv_trace, "Creating block registry\n");
    module.block_registry = allocateRecord<kv_block_type_list>();
    if (module.block_registry == nullptr) {
        setErrorText("Failed to allocate memory for block registry\n");
        return false;
    }
    kv::print(kv_trace, "Block registry: 0x%p\n", static_cast<void*>(module.block_registry));
    return true;
}

bool increase_block_registry_size(kv_block_type_list& root, uint32_t type) {
    kv::print(kv_trace, "Enlarge registry from %d to %d block types\n", root.Length, type + 1);
    if (!growTo(root.types, root.Length, type)) {
        setErrorText("Failed to allocate memory for new block type list\n");
        return false;
    }
    kv::print(kv_trace, "New block type list: 0x%p\n", static_cast<void*>(root.types));
    return true;
}

bool create_block_list(kv_block_type_list& root, uint32_t type) {
    kv::print(kv_trace, "Creating new block list struct for type %d\n", type);
    auto* list = allocateRecord<HintedBlockList>();
    if (list == nullptr) {
        setErrorText("Failed to allocate memory for block list\n");
        return false;
    }
    root.types[type] = list;
    ++root.nBlockTypes;
    kv::print(kv_trace, "New block list struct: 0x%p\n", static_cast<void*>(list));
    return true;
}

bool increase_block_list_size(kv_block_list& list, uint32_t id) {
    kv::print(kv_trace, "Enlarge block list from %d to %d blocks\n", list.Length, id + 1);
    if (!growTo(list.blocks, list.Length, id)) {
        setErrorText("Failed to allocate memory for new block list\n");
        return false;
    }
    kv::print(kv_trace, "New block list: 0x%p\n", static_cast<void*>(list.blocks));
    return true;
}

/** The list that has a slot for the block, built as far as it was missing; null when memory is exhausted. */
kv_block_list* blockListWithSlot(kv_mod_info& module, uint32_t type, uint32_t id) {
    if (module.block_registry == nullptr && !create_block_registry(module)) {
        return nullptr;
    }
    kv_block_type_list& root = *module.block_registry;
    if (type >= root.Length && !increase_block_registry_size(root, type)) {
        return nullptr;
    }
    if (root.types[type] == nullptr && !create_block_list(root, type)) {
        return nullptr;
    }
    kv_block_list* list = root.types[type];
    if (id >= list->Length && !increase_block_list_size(*list, id)) {
        return nullptr;
    }
    return list;
}

/** The lowest block id of a type that has no block, possibly one past the end of its list. */
uint32_t firstFreeBlockId(const kv_mod_info& module, uint32_t type) {
    kv_block_list* list = blockListOf(module, type);
    if (list == nullptr) {
        return 0;
    }
    uint32_t& hint = hinted(*list).firstFree;
    while (slotOrNull(list->blocks, list->Length, hint) != nullptr) {
        ++hint;
    }
    return hint;
}

void removeEmptyBlockList(kv_block_type_list& root, uint32_t type) {
    kv::print(kv_debug, "Cleaning up block list for type %d\n", type);
    std::free(root.types[type]->blocks);
    std::free(root.types[type]);
    root.types[type] = nullptr;
    --root.nBlockTypes;
}

void removeEmptyBlockRegistry(kv_mod_info& module) {
    kv::print(kv_debug, "Cleaning up block registry for module [type %d, id %d]\n", module.type, module.id);
    std::free(module.block_registry->types);
    std::free(module.block_registry);
    module.block_registry = nullptr;
}

}  // namespace

namespace kv::registry {

void cleanup_block_registry(const kv_mod_info& module) {
    kv_block_type_list* root = module.block_registry;
    kv::print(kv_debug, "Cleaning up block registry for module [type %d, id %d]\n", module.type, module.id);
    kv::print(kv_trace, "Cleaning up %d block types\n", root->Length);
    for (uint32_t type = 0; type < root->Length; ++type) {
        kv_block_list* list = root->types[type];
        if (list == nullptr) {
            continue;
        }
        kv::print(kv_trace, "Cleaning up %d blocks for type %d\n", list->Length, type);
        for (uint32_t id = 0; id < list->Length; ++id) {
            if (list->blocks[id] != nullptr) {
                kv::print(kv_trace, "Cleaning up block [type %d, id %d]\n", type, id);
                std::free(list->blocks[id]);
            }
        }
        kv::print(kv_trace, "Cleaning up block list for type %d\n", type);
        std::free(list);
    }
    kv::print(kv_trace, "Cleaning up block type list\n");
    std::free(root);
}

}  // namespace kv::registry

kv_block_info* kv_block_register(kv_mod_info* module, uint32_t block_type, uint32_t block_id) {
    kv::print(kv_debug, "Register block [type %d, id %d] for module [type %d, id %d]\n", block_type, block_id,
              module->type, module->id);
    kv_block_list* list = blockListWithSlot(*module, block_type, block_id);
    if (list == nullptr) {
        return nullptr;
    }
    if (list->blocks[block_id] != nullptr) {
        setErrorText("Block already registered\n");
        return nullptr;
    }
    auto* block = allocateRecord<kv_block_info>();
    if (block == nullptr) {
        setErrorText("Failed to allocate memory for new block entry\n");
        return nullptr;
    }
    block->type = block_type;
    block->id = block_id;
    list->blocks[block_id] = block;
    ++list->nBlocks;
    ++module->block_registry->nBlocks;
    return block;
}

kv_block_info* kv_block_get(kv_mod_info* module, uint32_t block_type, uint32_t block_id) {
    const kv_block_list* list = blockListOf(*module, block_type);
    return list == nullptr ? nullptr : slotOrNull(list->blocks, list->Length, block_id);
}

void kv_block_unregister(kv_mod_info* module, uint32_t block_type, uint32_t block_id) {
    kv::print(kv_debug, "Unregistering block [type %d, id %d] for module [type %d, id %d]\n", block_type,
              block_id, module->type, module->id);
    kv_block_info* block = kv_block_get(module, block_type, block_id);
    if (block == nullptr) {
        kv::print(kv_debug, "No block registered for: [type %d, id %d]\n", block_type, block_id);
        return;
    }
    kv_block_type_list& root = *module->block_registry;
    kv_block_list& list = *root.types[block_type];
    std::free(block);
    list.blocks[block_id] = nullptr;
    --root.nBlocks;
    --list.nBlocks;
    hinted(list).firstFree = std::min(hinted(list).firstFree, block_id);

    if (list.nBlocks == 0) {
        removeEmptyBlockList(root, block_type);
    }
    if (root.nBlockTypes == 0) {
        removeEmptyBlockRegistry(*module);
    }
}

kv_block_info* kv_block_register_with_uid(kv_mod_info* module, uint32_t block_type, uint64_t uid) {
    kv::print(kv_debug, "Register block by UID [type %d, uid %ld] for module [type %d, id %d]\n", block_type,
              static_cast<long>(uid), module->type, module->id);
    const uint32_t id = firstFreeBlockId(*module, block_type);
    kv::print(kv_trace, "Found free block ID slot %d\n", id);
    kv_block_info* block = kv_block_register(module, block_type, id);
    if (block != nullptr) {
        block->uid = uid;
    }
    return block;
}

kv_block_info* kv_block_get_by_uid(kv_mod_info* module, uint32_t block_type, uint64_t uid) {
    const kv_block_list* list = blockListOf(*module, block_type);
    if (list == nullptr) {
        return nullptr;
    }
    for (uint32_t id = 0; id < list->Length; ++id) {
        if (list->blocks[id] != nullptr && list->blocks[id]->uid == uid) {
            return list->blocks[id];
        }
    }
    return nullptr;
}
