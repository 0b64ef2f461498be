/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A host of the log service in C. It starts the service under its binder name, where logset and logview reach
 * it, tells how it is, and takes it down in good order at SIGTERM or SIGINT. SIGUSR1 brings to the medium what
 * is buffered.
 */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <vnlog.h>

/* Blocked before the start: the service's threads inherit that, and leave the signals to sigwait. */
static void block(sigset_t *signals)
{
    sigemptyset(signals);
    sigaddset(signals, SIGTERM);
    sigaddset(signals, SIGINT);
    sigaddset(signals, SIGUSR1);
    sigprocmask(SIG_BLOCK, signals, NULL);
    signal(SIGPIPE, SIG_IGN); /* a console that is closed is told by its write */
    signal(SIGXFSZ, SIG_IGN); /* and so is a file that must not grow */
}

/* The status has no fixed length, and grows while it is asked for: asked for again until it fits. */
static int print_status(vnlog_service *service)
{
    size_t size = 0, needed = 0;
    char *text = NULL;
    enum vnlog_result result;

    while ((result = vnlog_status(service, VNLOG_TEXT, text, size, &needed)) == VNLOG_TOO_SMALL) {
        free(text);
        size = needed;
        text = malloc(size);
        if (text == NULL)
            return -1;
    }
    if (result == VNLOG_OK)
        fputs(text, stderr);
    free(text);
    return result == VNLOG_OK ? 0 : -1;
}

static void serve(vnlog_service *service, const sigset_t *signals)
{
    char why[VNLOG_REASON_SIZE];
    int number = 0;

    while (sigwait(signals, &number) == 0 && number == SIGUSR1)
        if (vnlog_command(service, "FLUSH", "--wait --sync", why, sizeof why) != VNLOG_OK)
            fprintf(stderr, "host: FLUSH: %s\n", why);
}

int main(void)
{
    vnlog_service *service;
    char why[VNLOG_REASON_SIZE];
    uint32_t dropped = 0;
    sigset_t signals;
    enum vnlog_result result;

    block(&signals);
    result = vnlog_start(VNLOG_PUBLISH, &service, why, sizeof why);
    if (result != VNLOG_OK) {
        fprintf(stderr, "host: the log service does not start (%d): %s\n", (int)result, why);
        return 1;
    }
    fprintf(stderr, "host: log service %s\n", vnlog_version());
    if (print_status(service) != 0)
        fprintf(stderr, "host: there is no status\n");
    serve(service, &signals);
    result = vnlog_stop(service, &dropped);
    if (dropped > 0)
        fprintf(stderr, "host: %lu bytes are lost\n", (unsigned long)dropped);
    vnlog_free(service);
    return result == VNLOG_OK && dropped == 0 ? 0 : 1;
}
