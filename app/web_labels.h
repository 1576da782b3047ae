#pragma once
// The web interface's words for the Kelvo choices and the label sizes.
// PAPPL shows a vendor choice by its IPP name ("kelvo-gap-height") and a
// size by its dimensions unless strings are added with
// papplSystemAddStringsData, and PAPPL 1.3.1 then reports
// printer-strings-languages-supported twice, which fails ipptool's IPP/2.0
// test. So the words come from a script of the application's own,
// /kelvo/labels.js, which every page loads from its footer and which puts
// them in place of the names; without JavaScript the names stay.
#include <pappl/pappl.h>

#include <string>

// Adds the script and loads it from the footer; call after the footer is set.
void kelvoWebLabelsStart(pappl_system_t* system);

// The script.
std::string kelvoWebLabelsScript();
