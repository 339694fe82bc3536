#pragma once

#include <brevane/IamRoot.h>

/**
 * Root rights for the calling thread while the object lives. Held only around single privileged calls:
 * scheduler and affinity changes, sysfs writes, opening device nodes, /dev/mem.
 */
class [[nodiscard]] kv_beRootObj : public brevane::IamRoot {};
