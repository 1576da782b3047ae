#pragma once
// The three printer models of the shipped PPDs as PAPPL drivers: their
// resolutions, media, choices and vendor attributes, and how a job's IPP
// options become the engine's settings.
#include <pappl/pappl.h>

#include "printer/job_settings.h"

// One label or sheet size: the PPD's word for it, its size and the PWG
// name clients see for it (made at compile time, app/drivers.cpp).
struct KelvoMedia {
  const char* ppdName;
  float widthPt;  // the PPD's size, in points
  float heightPt;
  char pwgName[64];
};

struct KelvoModel {
  const char* driverName;
  const char* description;
  int dpi;
  ZplDialect dialect;
  bool stencil;
  int speedMin;  // inches a second; "Normal" (0) is the printer's own speed
  int speedMax;
  const KelvoMedia* media;
  int numMedia;
  int defaultMedia;
};

// The drivers, in the order "drivers" lists them.
extern pappl_pr_driver_t kelvoDrivers[];
extern const int kelvoNumDrivers;

// The model of a driver name; null for names that are not ours.
const KelvoModel* kelvoFindModel(const char* driverName);

bool kelvoDriverCallback(pappl_system_t* system, const char* driverName, const char* deviceUri,
                         const char* deviceId, pappl_pr_driver_data_t* data, ipp_t** attrs, void* cbdata);

// Tells ZPL from other data by its first bytes, for jobs sent without a
// document format.
const char* kelvoDetectFormat(const unsigned char* header, size_t size, void* data);

// The settings of one job on a printer of `model`: the model's fixed choices,
// then the job's IPP options and the printer's label mode on top. The copies
// and the sheet are the job's to set.
KelvoJobSettings kelvoSettingsFromOptions(const KelvoModel& model, const pappl_pr_options_t& options,
                                          pappl_label_mode_t mode);

// The halftone an IPP keyword stands for: the one the PPD word of the same
// place in the list runs ("stucki" runs Jarvis, Judice and Ninke's kernel),
// so that a job prints what the filter prints for that word; unknown
// keywords give the threshold.
KelvoHalftone kelvoHalftoneFromKeyword(const char* keyword);

// How a driver's jobs print (app/job.cpp), handed to kelvoDriverCallback as
// its callback data by whoever sets up the system.
struct KelvoJobCallbacks {
  pappl_pr_printfile_cb_t printFile;
  pappl_pr_rstartjob_cb_t startJob;
  pappl_pr_rstartpage_cb_t startPage;
  pappl_pr_rwriteline_cb_t writeLine;
  pappl_pr_rendpage_cb_t endPage;
  pappl_pr_rendjob_cb_t endJob;
};

// The MIME type of ZPL documents.
constexpr const char* kKelvoZplFormat = "application/vnd.zebra-zpl";
