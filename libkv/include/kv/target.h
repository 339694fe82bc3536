/**
 * @file
 * What machine the library runs on: hardware family, marketing name, serial numbers, processor temperature,
 * the lines of its screen, and its clock.
 *
 * Functions that read a file open it anew on each call and may block on it. All are reentrant and hold no
 * state, but for those of the clock, which are for one thread, the model's.
 */
#ifndef KV_TARGET_H
#define KV_TARGET_H

#include <stdint.h>

#include <kv/export.h>

#ifdef __cplusplus
#include <string>
#endif

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

#ifdef __cplusplus
/**
 * @name Screen lines
 *
 * The two lines on the machine's own screen, with the platform's colour tags around each. For C++ only; the
 * symbols bear these plain names. They throw std::bad_alloc where memory is exhausted.
 * @{
 */
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

/**
 * @return "<white>Kelvaro NAME SERIAL</white>". The name is the first line of
 * /usr/kelvaro/sysinfo/kelvaro_marketingName.txt, "MarketingName" where that file cannot be opened. The
 * serial number is the first that the machine has: "SN 4711" for the customer's, "SN i12" for the internal
 * one, "SN s77" for the supplier's, else "NoSerialNumber".
 */
KV_EXPORT std::string kv_getTargetScreenLine1();

/**
 * @return "<white>VERSION</white>", with the first line of /usr/kelvaro/sysinfo/kelvaro_version.txt, and
 * nothing between the tags where the file cannot be opened or is empty
 */
KV_EXPORT std::string kv_getTargetScreenLine2();

/** @} */

#ifdef __clang__
#pragma clang diagnostic pop
#endif
#endif

/**
 * @name Clock
 * @{
 */

/** Bytes that kv_getTargetTime() writes at most. */
#define KV_TARGET_TIME_SIZE 26

/**
 * Tells the local time as ctime() writes it, "Wed Jun  5 14:07:09 2024\n".
 *
 * @param targetTime  receives the text with its newline; at least KV_TARGET_TIME_SIZE bytes
 * @return 0
 */
KV_EXPORT int kv_getTargetTime(char* targetTime);

/**
 * @return the local time in days, whole seconds being the fraction: 1 January of year 0 begins at 1.0, 1
 * January of year 1 at 367.0
 */
KV_EXPORT double kv_getTargetTimeNum(void);

/** @return seconds since the first call of this function in the process, a little more than 0 on that call */
KV_EXPORT double kv_getSecondsSinceStart(void);

/** A calendar text cut into fields. A text that fills its field has no terminator. */
typedef struct DateStr_tag {
    char wd[4];     /**< weekday, "Wed" */
    char month[4];  /**< "Jun" */
    char dom[4];    /**< day of the month */
    char hhmmss[9]; /**< time of day, "14:07:09" */
    char tz[4];     /**< time zone; calendar texts have none */
    char year[4];   /**< "2024", never terminated */
} DateStr_T;

/** A point in time, in fields. */
typedef struct DateTime_tag {
    int year;      /**< of the calendar */
    int month;     /**< 1 to 12, 0 when unknown */
    int dom;       /**< day of the month, from 1 */
    int doy;       /**< day of the year, from 1; 0 when it was not computed */
    int hour;      /**< 0 to 23 */
    int min;       /**< 0 to 59 */
    int sec;       /**< whole seconds, 0 to 60 */
    double subsec; /**< fraction of a second */
    int ns;        /**< not used */
    int inSync;    /**< not used */
} DateTime_T;

/** Prints "DateTime: 2024-06-05 14:07:09" and a newline to standard output. @return 0 */
KV_EXPORT int print_dt(DateTime_T* dt);

/** Prints the fields, but for tz, in one line to standard output. @return 0 */
KV_EXPORT int print_ds(DateStr_T* ds);

/** @} */

KV_END_DECLS

#endif
