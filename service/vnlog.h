/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VNLOG_H
#define VNLOG_H

/**
 * @file
 * The log service for hosts that are written in C, or in any language that calls C.
 *
 * A host starts the service, gives it commands, asks for its status, stops it, and frees its handle. There is
 * one service in a process at a time. Every function may be called on any thread, several at once, but for
 * vnlog_free, and none in a signal handler or in the child of a fork. A calling thread is not cancelled
 * inside. No C++ exception leaves a function.
 *
 * Texts are handed over in a buffer of the caller's: with a terminating zero after every result, cut where
 * the buffer is too small. A null buffer of 0 bytes takes nothing; a null buffer of more is
 * VNLOG_BAD_ARGUMENT, as is any null argument that is not said to be allowed.
 */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Marks what the library offers. */
#define VNLOG_C_API __attribute__((visibility("default")))

/** A service that was started. */
typedef struct vnlog_service vnlog_service;

/** What came of a call. Numbers are never given another meaning; later versions may add some. */
enum vnlog_result {
    VNLOG_OK = 0, /**< it is done */
    VNLOG_BAD_ARGUMENT =
        1, /**< null where that is not allowed, or an unknown flag or form: nothing is done */
    VNLOG_NO_MEMORY = 2, /**< memory ran out; a start has left nothing behind */
    VNLOG_ALREADY_STARTED = 3, /**< this process has a service that is not stopped; it stays as it is */
    VNLOG_NAME_TAKEN = 4, /**< another process has published a log service; its store is not touched */
    VNLOG_NOT_STARTED = 5, /**< the start failed and has left nothing behind */
    VNLOG_NOT_PUBLISHED = 6, /**< the service could not be published, and is stopped again */
    VNLOG_UNKNOWN_COMMAND = 7, /**< there is no command of that name */
    VNLOG_BAD_PARAMETER = 8, /**< the command does not accept the parameter: nothing is done */
    VNLOG_FAILED =
        9, /**< the command was refused or failed, or a stop: the text or the Android log tells why */
    VNLOG_STOPPED = 10, /**< the service is not running any more */
    VNLOG_TOO_SMALL = 11 /**< the buffer holds the beginning of the text only */
};

/** What a host chooses at the start, joined by "|". */
enum vnlog_flag {
    /** Publishes the service under the binder name "vnlog.logservice", where logset and logview reach it. */
    VNLOG_PUBLISH = 1
};

/** The form of a status. */
enum vnlog_form {
    VNLOG_TEXT = 0, /**< lines "group.name=value"; the first is "works=y" or "works=n" */
    VNLOG_JSON = 1 /**< one object, as logset STATUS --json prints it */
};

/** A buffer of so many bytes takes any reason whole; a reason that names a long path may be longer. */
#define VNLOG_REASON_SIZE 512

/**
 * Starts the service with all its workers: reads the configuration, mends and prepares the store. A storage
 * that cannot be used does not fail the start: that is tried again every minute, and the status tells it.
 *
 * @param flags values of vnlog_flag, or 0
 * @param service where the handle goes, to be freed by vnlog_free; null after a failure
 * @param reason what a failure's reason goes to, empty after a success; may be null
 * @param size bytes of `reason`
 * @return VNLOG_OK, VNLOG_BAD_ARGUMENT, VNLOG_NO_MEMORY, VNLOG_ALREADY_STARTED, VNLOG_NAME_TAKEN (only with
 *         VNLOG_PUBLISH), VNLOG_NOT_STARTED or VNLOG_NOT_PUBLISHED
 */
VNLOG_C_API enum vnlog_result vnlog_start(unsigned flags, vnlog_service** service, char* reason, size_t size);

/**
 * Stops the service: takes it from its name, stores what the sources hold and what is buffered, and ends the
 * workers. A medium that takes nothing holds this up for at most about 15 seconds, one on which the kernel
 * holds a system call for as long as that lasts. With the stand-in for
 * binder every service that this process has published is taken from its name. With a device's binder none
 * is: the name stays with the stopped service, which refuses every command, until this process publishes
 * another or ends. A second stop waits for the first and has its result. The handle stays valid.
 *
 * @param service the handle
 * @param dropped where the number of buffered bytes goes that could not be stored and are lost, 0 without a
 *        handle; may be null
 * @return VNLOG_OK, also when bytes were dropped; VNLOG_BAD_ARGUMENT; VNLOG_NO_MEMORY or VNLOG_FAILED when a
 *         step failed, after which the service may be stopped once more
 */
VNLOG_C_API enum vnlog_result vnlog_stop(vnlog_service* service, uint32_t* dropped);

/**
 * Frees the handle, and stops the service before if that was not done. No other call with the handle may be
 * under way or follow.
 *
 * @param service the handle, or null, which does nothing
 */
VNLOG_C_API void vnlog_free(vnlog_service* service);

/**
 * Gives the service a command, as logset does: the same names and parameters, in any case, checked by the
 * same rules. BUNDLE is no command of the service but work of logset's own, and is not known here. Waits for
 * its end: a copy of a large store takes long.
 *
 * @param service the handle
 * @param name the command's name, such as "KLOG_LEVEL"
 * @param parameter its parameter, such as "4"; null for none
 * @param answer what the answer goes to, after a failure the reason; empty when there is none; may be null
 * @param size bytes of `answer`; a longer answer is cut, which changes no result
 * @return VNLOG_OK, VNLOG_BAD_ARGUMENT, VNLOG_NO_MEMORY (whether it is done is not known),
 *         VNLOG_UNKNOWN_COMMAND, VNLOG_BAD_PARAMETER, VNLOG_FAILED or VNLOG_STOPPED
 */
VNLOG_C_API enum vnlog_result vnlog_command(vnlog_service* service, const char* name, const char* parameter,
                                            char* answer, size_t size);

/**
 * Tells how the service is: whether all that is switched on works, what is stored, what was lost. Waits about
 * a second at most for a command that lasts, and tells less then. The text differs from call to call.
 *
 * @param service the handle
 * @param form a value of vnlog_form
 * @param text what the status goes to, empty without one; may be null
 * @param size bytes of `text`
 * @param needed where the bytes go that the whole text and its zero need, 0 without a text; may be null
 * @return VNLOG_OK, VNLOG_TOO_SMALL, VNLOG_BAD_ARGUMENT, VNLOG_NO_MEMORY, VNLOG_FAILED or VNLOG_STOPPED
 */
VNLOG_C_API enum vnlog_result vnlog_status(vnlog_service* service, enum vnlog_form form, char* text,
                                           size_t size, size_t* needed);

/** The version of the library that is running, such as "0.1.0". Constant, never null. */
VNLOG_C_API const char* vnlog_version(void);

#ifdef __cplusplus
}
#endif

#endif
