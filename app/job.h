#pragma once
// Printing one job: raster pages through the engine, ZPL documents as they
// are. PAPPL calls these from the job's own thread; every job keeps its own
// engine, so printers print side by side.
#include <pappl/pappl.h>

#include "app/drivers.h"

bool kelvoStartJob(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device);
bool kelvoStartPage(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device, unsigned page);
bool kelvoWriteLine(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device, unsigned y,
                    const unsigned char* line);
bool kelvoEndPage(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device, unsigned page);
bool kelvoEndJob(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device);
// ZPL documents go to the printer untouched, once a copy.
bool kelvoPrintFile(pappl_job_t* job, pappl_pr_options_t* options, pappl_device_t* device);
// PNG and JPEG documents (app/picture.h), once a copy. Every job ends once
// the printer has all of it (app/device.h).
bool kelvoPrintPicture(pappl_job_t* job, pappl_device_t* device, void* data);
// Makes the application print PNG and JPEG documents with kelvoPrintPicture
// instead of PAPPL's own filter, which loops for good on a damaged PNG.
void kelvoAddPictureFilters(pappl_system_t* system);

// All of the above, for kelvoDriverCallback.
extern const KelvoJobCallbacks kelvoJobCallbacks;
