/**
 * @file
 * What machine the library runs on: hardware family, marketing name, serial numbers and processor
 * temperature.
 *
 * All functions are reentrant and hold no state. Those that read a file open it anew on each call and may
 * block on it.
 */
#ifndef KV_TARGET_H
#define KV_TARGET_H

#include <stdint.h>

#include <kv/export.h>

KV_BEGIN_DECLS

/** Hardware family of a target machine. The values never change. */
typedef enum kv_TargetType
#ifdef __cplusplus
    : uint32_t
#endif
{ Alder = 0,
  Birch = 1,
  Quartz = 2,
  Keystone = 3,
  Keystone_TopLayer = 4,
  RamblerV2 = 5,
  Fir = 6,
  Cubit = 7,
  Hazel = 8,
  RamblerRugged = 9,
  Scholar2 = 10,
  Kapok = 11,
  RamblerV3 = 12,
  Larch = 13,
  Maple = 14,
  Nutmeg = 15,
  Olive = 16,
  NonKelvaro = 17 } kv_TargetType;

/** @return the hardware family that the library was built for; this build answers Olive. */
KV_EXPORT kv_TargetType kv_getTargetType(void);

/**
 * @return the name under which the machine is sold, "Ember real-time target machine" on this build. A static
 * string, never null. Several hardware families share a name.
 */
KV_EXPORT const char* kv_getTargetMarketingName(void);

/**
 * Reads the processor temperature from /sys/class/hwmon/hwmon0/temp1_input (millidegrees Celsius).
 *
 * @return whole degrees Celsius, truncated toward zero; -1 when the file is missing, which is logged at
 * kv_error, or empty, which is not. A temperature between -1.999 and -1 degrees gives -1 too. A text that is
 * no number gives 0.
 */
KV_EXPORT int32_t kv_getCpuTemperature(void);

/**
 * Reads the customer-visible serial number from /sys/devices/platform/ember/rttm/system_serial.
 *
 * @return the number; -1 when the file cannot be read or holds a serial number of another kind, which is
 * normal on boards without the firmware driver.
 */
KV_EXPORT int kv_getSerialNumber(void);

/** Reads the internal serial number (the letter i, then digits) from the same file. @return as
 * kv_getSerialNumber() */
KV_EXPORT int kv_getSerialNumberInternal(void);

/** Reads the supplier's serial number (the letter s, then digits) from the same file. @return as
 * kv_getSerialNumber() */
KV_EXPORT int kv_getSerialNumberSupplier(void);

KV_END_DECLS

#endif
