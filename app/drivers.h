#pragma once
// The three printer models of the shipped PPDs as PAPPL drivers: their
// resolutions, media, choices and vendor attributes, and how a job's IPP
// options become the engine's settings.
#include <pappl/pappl.h>

#include "printer/job_settings.h"

// One label or sheet size: the PPD's word for it and its words ("4 x 6
// in"), its size as printed at the model's resolution, in dots and in
// points, and the PWG name clients see (all made at compile time).
struct KelvoMedia {
  const char* ppdName;
  const char* text;
  int widthDots;
  int heightDots;
  double widthPt;
  double heightPt;
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
  const char* defaultMedia;  // the PPD's word for it
};

// One value of a keyword choice: its IPP keyword, its words for people
// (null for an old keyword still taken) and what it stands for (the number
// of a KelvoHalftone, PostAction or GraphicEncoding; -1: the printer's
// label mode).
struct KelvoWord {
  const char* keyword;
  const char* text;
  int value;
};

// A choice of the Kelvo drivers beyond standard IPP ("kelvo-halftone"), in
// words ("Halftone"), with its values and the defaults of the label and the
// stencil printers (as IPP strings; null where a printer lacks the choice).
struct KelvoChoice {
  const char* name;
  const char* text;
  enum Kind { kKeyword, kRange, kBoolean } kind;
  const KelvoWord* words;  // kKeyword
  int numWords;
  int min, max;  // kRange
  const char* labelDefault;
  const char* stencilDefault;
};

// The choices, in the order the web interface shows them.
const KelvoChoice* kelvoChoices(int* count);

// The words of choice `name`'s value `keyword` ("Barcode and text"); null
// for an old keyword still taken and for a value the choice lacks.
const char* kelvoChoiceWords(const char* name, const char* keyword);

// The words of the model's size named `pwgName` ("4 x 6 in"); null for a
// name that is not one of its sizes.
const char* kelvoMediaText(const KelvoModel& model, const char* pwgName);

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

// The halftone an IPP keyword stands for ("jarvis-judice-ninke-diffusion";
// the old "stucki" runs that kernel too, as the PPD's Stucki does); unknown
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
