/**
 * @file
 * Paths, directories, helper processes and the version of the installed library.
 *
 * All functions may be called from any thread and may block on the file system. Texts are never null. Buffers
 * belong to the caller.
 */
#ifndef KV_PROCESS_H
#define KV_PROCESS_H

#include <stdbool.h>
#include <stdint.h>

#include <kv/export.h>

KV_BEGIN_DECLS

/**
 * @name Paths
 * @{
 */

/** @return true when the path can NOT be accessed, false when it exists: callers rely on the inverted sense
 */
KV_EXPORT bool kv_doesFsNodeExist(const char* pPath);

/**
 * Joins parts of a path with "/". Nothing is written for no parts.
 *
 * @param nParts  the number of texts (const char*) that follow @p path
 * @param path    receives the joined path; no bound is checked, so it must be large enough
 */
KV_EXPORT void kv_fullFile(int nParts, char* path, ...);

/** Does nothing: this platform has no drives. Models built for other platforms call it. */
KV_EXPORT void kv_setDriveLetter(char driveLetter);

/**
 * Tells the base directory of the running application: its executable's path, which is where /proc/self/exe
 * leads, up to the first "/bin/".
 *
 * @param outPath  receives the directory, or, when the path has no "/bin/", the whole path
 * @param maxLen   size of outPath in bytes; a longer path is cut before "/bin/" is looked for
 * @return 0; -1 when there is no "/bin/", and also, with the reason in pKvErrorStr, when the path cannot be
 *         read
 */
KV_EXPORT int kv_getModelBaseDir(char* outPath, uint32_t maxLen);

/** Tells the configuration directory, "/usr/kelvaro". @return 0; -1 when outPath, untouched, is too small */
KV_EXPORT int kv_getConfigBaseDir(char* outPath, uint32_t maxLen);

/** @} */

/**
 * @name Directories and device files
 * @{
 */

/** @return 0 when the directory can be opened, -1 when the path does not exist, -2 on any other error */
KV_EXPORT int kv_fs_checkDir(const char* path);

/** Makes a directory (mode 0755) where there is none, but none above it. @return 0; -1 with errno set */
KV_EXPORT int kv_fs_ensureDirExists(const char* path);

/**
 * Opens an existing file with root rights, where the process may have them.
 *
 * @param flags  as for open(); must not ask for creation
 * @return a descriptor, which the caller closes; -1 with errno set
 */
KV_EXPORT int kv_openAsRoot(const char* file, int flags);

/** @} */

/**
 * @name Processes and version
 * @{
 */

/**
 * Starts a helper program by posix_spawn(3), with an empty environment, and does not wait for it.
 *
 * @param path            the program's directory; with "/" and the name it may have 99 characters
 * @param executableName  the program's name
 * @param options         its arguments, separated by blanks; what follows the 18th is dropped with a warning
 * @return the child's process id, which the caller may wait for; -1, with a log record, when it cannot be
 *         started
 */
KV_EXPORT int kv_spawnExecutable(const char* path, const char* executableName, const char* options);

/** Bytes that kv_getLibVersion() writes. */
#define KV_LIB_VERSION_SIZE 100

/**
 * Reads the version of the installed library package, the first line of
 * /usr/kelvaro/sysinfo/kelvaro_version.txt.
 *
 * @param outLibVer  receives KV_LIB_VERSION_SIZE bytes: the line with its newline, at most 99 characters
 * @return 0; -1, with a line on standard output, when the file cannot be opened or is empty; each call on an
 *         empty file leaves a descriptor open
 */
KV_EXPORT int kv_getLibVersion(char* outLibVer);

/** @} */

KV_END_DECLS

#endif
