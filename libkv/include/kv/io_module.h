/**
 * @file
 * I/O modules as objects, and the process-wide list in which drivers find each other's.
 *
 * The object-oriented counterpart of kv/registry.h, for drivers in C++ that keep one kv::IoModule for each
 * module and share nothing but that. A module is known by (type, id) or by the place of its board on the PCI
 * bus. The two registries know nothing of each other.
 *
 * The list holds pointers that it does not own: a driver creates its object, adds it, and removes it before
 * it destroys it. Nothing is locked: modules are added, looked up and removed during a model's initialisation
 * and termination, which run on one thread. Nothing here blocks but on the memory allocator, prints anything
 * or enters the kernel.
 *
 * For C there is nothing in this header but what kv/pci.h declares.
 */
#ifndef KV_IO_MODULE_H
#define KV_IO_MODULE_H

#include <kv/export.h>
#include <kv/pci.h>

#ifdef __cplusplus
#include <cstdint>
#include <list>
#include <utility>

namespace kv {

/**
 * The catalogue of modules. An entry's value is the module's catalogue number, which is also the PCI device
 * id of its board under vendor 0x1b5a, and its name is that number in hexadecimal.
 *
 * The first two digits tell the family: 0a analog, 0c counters, 0d digital. The last two tell the size, for
 * analog modules after a digit for the kind of output: 1 volts, 2 current.
 */
enum ModuleTypes : std::uint32_t {
    ioxxx = 0,       /**< no type */
    io0a14 = 0x0a14, /**< 4 analog inputs, 4 outputs in volts */
    io0a18 = 0x0a18, /**< 8 analog inputs, 8 outputs in volts */
    io0a24 = 0x0a24, /**< 4 analog inputs, 4 current outputs */
    io0a28 = 0x0a28, /**< 8 analog inputs, 8 current outputs */
    io0c04 = 0x0c04, /**< 4 counters for incremental encoders */
    io0d10 = 0x0d10, /**< 16 digital lines */
    io0d20 = 0x0d20, /**< 32 digital lines */
    io0d40 = 0x0d40  /**< 64 digital lines */
};

/** One I/O module. Copies are independent of each other; a copy is not registered. */
class KV_EXPORT IoModule {
 public:
    /** A module without type, id 0. */
    IoModule();

    /** A module whose board is not known yet. */
    IoModule(ModuleTypes type, int id);

    ~IoModule();  // NOLINT(performance-trivially-destructible): drivers link to it

    /** Sets the module's type. */
    void setType(ModuleTypes type);
    /** @return the type */
    ModuleTypes getType() const;

    /** Sets the module's id within its type. */
    void setId(int id);
    /** @return the id */
    int getId() const;

    /** Sets the board's position for kv_findPciDeviceMultiIDs(), counted from 1; 0 until set. */
    void setPciAutosearchPos(int pciAutosearchPos);
    /** @return the position */
    int getPciAutosearchPos() const;

    /** Sets the place of the module's board as (bus, slot); (-1, -1) until known. */
    void setPciInfo(std::pair<int, int> pciInfo);
    /** @return (bus, slot) */
    std::pair<int, int> getPciInfo() const;

 private:
    // The names and the order of the fields are fixed.
    // NOLINTBEGIN(readability-identifier-naming)
    ModuleTypes m_type = ioxxx;
    int m_id = 0;
    int m_pciAutosearchPos = 0;
    std::pair<int, int> m_pciInfo = {-1, -1};
    // NOLINTEND(readability-identifier-naming)
};

/** The list of the process. It exists from the load of the library to its unload, which leaves the modules
 * alone. */
class KV_EXPORT IoModuleRegistry {
 public:
    /**
     * Adds a module, which must stay where it is until it is removed.
     *
     * Of two modules with the same type and id the first stays, and the second is silently not added.
     * Throws std::bad_alloc when memory is exhausted; the list is then as before.
     *
     * @param module  not null
     */
    static void add(IoModule* module);

    /** @return the module, null when there is none */
    static IoModule* find(ModuleTypes type, int id);

    /**
     * Finds the module whose board is at the record's bus and slot, the newest where there are several.
     *
     * @param pciDevice  not null; only bus and slot are read
     * @return the module; null when there is none. A module whose place is not known is never found.
     */
    static IoModule* find(kv_PCIDevice* pciDevice);

    /** Takes a module out of the list; the object is left alone. Does nothing when there is none. */
    static void remove(ModuleTypes type, int id);

 private:
    static std::list<IoModule*> m_ioModuleList;  // the newest module first
};

}  // namespace kv
#endif

#endif
