#include <algorithm>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <brevane/Service.h>

#include "service_set.h"

namespace brevane {

namespace {

struct Registration {
    std::string name;
    Service::Factory factory;
};

struct Registry {
    std::mutex mutex;
    std::vector<Registration> services;
};

/** Made by the first static initialiser that asks, and never destroyed. */
Registry& registry() {
    static Registry& instance = *new Registry;
    return instance;
}

std::vector<Registration> registeredServices() {
    const std::lock_guard lock(registry().mutex);
    return registry().services;
}

/** Runs one action of a service, and puts its name in front of what it throws. */
template <typename Action>
void call(const std::string& name, const char* verb, Action&& action) {
    try {
        action();
    } catch (const std::exception& failure) {
        throw std::runtime_error("service " + name + " failed to " + verb + ": " + failure.what());
    }
}

}  // namespace

Service::~Service() = default;

bool Service::doRegister(const std::string& name, Factory factory) {
    const std::lock_guard lock(registry().mutex);
    auto& services = registry().services;
    const bool taken = std::ranges::any_of(services, [&](const auto& each) { return each.name == name; });
    if (taken || factory == nullptr) {
        return false;
    }
    services.push_back({name, factory});
    return true;
}

ServiceSet::~ServiceSet() {
    while (!entries_.empty()) {
        entries_.pop_back();
    }
}

void ServiceSet::create() {
    for (const Registration& each : registeredServices()) {
        call(each.name, "be created", [&] {
            auto service = each.factory();
            if (service == nullptr) {
                throw std::runtime_error("its factory returned nothing");
            }
            entries_.push_back({each.name, std::move(service)});
        });
    }
}

void ServiceSet::initialize() {
    for (const Entry& each : entries_) {
        call(each.name, "initialize", [&] { each.service->initialize(); });
    }
}

void ServiceSet::start() {
    for (const Entry& each : entries_) {
        call(each.name, "start", [&] { each.service->start(); });
        ++started_;
    }
}

void ServiceSet::stopLast() {
    const Entry& last = entries_[--started_];
    call(last.name, "stop", [&] { last.service->stop(); });
}

}  // namespace brevane
