// Command runners: run a command line through the shell and wait for its end. Other children of the caller are left
// for it to reap.
#ifndef PLATFORM_EXEC_CMD_H
#define PLATFORM_EXEC_CMD_H

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

// Runs a command with the given standard streams; null leaves the process's own, and a stream whose descriptor is
// closed is closed for the command too. The last word is 0.
// 0 when the command ended with exit status 0, otherwise its wait status, or -1 with errno.
int32_t exec_cmd_with_io_print(const char *command, FILE *input, FILE *output, FILE *error, uint32_t reserved);

// Runs a command with its standard streams connected to files.
//   input          file to read, or null for no input
//   output, error  files to create or truncate, or null to leave the process's own stream
// As exec_cmd_with_io_print.
int32_t exec_cmd_with_files_print(const char *command, const char *input, const char *output, const char *error,
                                  uint32_t reserved);

#ifdef __cplusplus
}
#endif
#endif
