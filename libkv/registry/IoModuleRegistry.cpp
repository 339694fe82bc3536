#include <algorithm>

#include <kv/io_module.h>

namespace kv {

std::list<IoModule*> IoModuleRegistry::m_ioModuleList;

namespace {

auto isModule(ModuleTypes type, int id) {
    return [=](const IoModule* module) { return module->getType() == type && module->getId() == id; };
}

auto isAt(const kv_PCIDevice& device) {
    // Compared by value: -1, a place that is not known, equals no unsigned number.
    return [&device](const IoModule* module) {
        const auto [bus, slot] = module->getPciInfo();
        return std::cmp_equal(bus, device.bus) && std::cmp_equal(slot, device.slot);
    };
}

template <typename Condition>
IoModule* firstOrNull(const std::list<IoModule*>& modules, Condition condition) {
    const auto found = std::find_if(modules.begin(), modules.end(), condition);
    return found == modules.end() ? nullptr : *found;
}

}  // namespace

void IoModuleRegistry::add(IoModule* module) {
    if (find(module->getType(), module->getId()) == nullptr) {
        m_ioModuleList.push_front(module);
    }
}

IoModule* IoModuleRegistry::find(ModuleTypes type, int id) {
    return firstOrNull(m_ioModuleList, isModule(type, id));
}

IoModule* IoModuleRegistry::find(kv_PCIDevice* pciDevice) {
    return firstOrNull(m_ioModuleList, isAt(*pciDevice));
}

void IoModuleRegistry::remove(ModuleTypes type, int id) {
    const auto found = std::find_if(m_ioModuleList.begin(), m_ioModuleList.end(), isModule(type, id));
    if (found != m_ioModuleList.end()) {
        m_ioModuleList.erase(found);
    }
}

}  // namespace kv
