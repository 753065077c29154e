// biosctl program: has a module's BIOS flash programmed and follows it to its end. Blocks until then.
#pragma once

#include <functional>
#include <string>

#include "outcome.h"
#include "program_options.h"
#include "programming_result.h"

outcome run_program(const program_options &options, bool json);

// What is printed when Ctrl-C ends the process while an answer is waited for.
using last_words_text = std::function<std::string(const programming_result &interrupted)>;

// One of several programmings. REQUIRES: catch_interrupt was called.
//   fd  where the last words go
programming_result program_module(const program_options &options, int fd, const last_words_text &last_words);
