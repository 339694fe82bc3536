#include <kv/io_module.h>

namespace kv {

IoModule::IoModule() = default;

IoModule::IoModule(ModuleTypes type, int id) : m_type(type), m_id(id) {}

IoModule::~IoModule() = default;

void IoModule::setType(ModuleTypes type) {
    m_type = type;
}

ModuleTypes IoModule::getType() const {
    return m_type;
}

void IoModule::setId(int id) {
    m_id = id;
}

int IoModule::getId() const {
    return m_id;
}

void IoModule::setPciAutosearchPos(int pciAutosearchPos) {
    m_pciAutosearchPos = pciAutosearchPos;
}

int IoModule::getPciAutosearchPos() const {
    return m_pciAutosearchPos;
}

void IoModule::setPciInfo(std::pair<int, int> pciInfo) {
    m_pciInfo = pciInfo;
}

std::pair<int, int> IoModule::getPciInfo() const {
    return m_pciInfo;
}

}  // namespace kv
