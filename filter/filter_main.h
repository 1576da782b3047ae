#pragma once
// The filter's entry, callable in process (the program's main and the fuzz
// harness both use it). Returns the exit status for the spooler.
#include "printer/page_limits.h"

int kelvoFilterMain(int argc, char** argv);
