#pragma once
// Checks of what clients send, before PAPPL acts on it: PAPPL 1.3 takes any
// value for a driver's own (vendor) attributes and any number of attributes
// in a request. The checks are generic: a vendor attribute's value must be
// one its printer's "<name>-supported" offers, in a job's attributes and in
// Set-Printer-Attributes' "<name>-default"; a request has at most
// kKelvoMaxAttributes attributes, kKelvoMaxValues values and
// kKelvoMaxRequestBytes bytes.
#include <pappl/pappl.h>

#include <string>

constexpr int kKelvoMaxAttributes = 1000;
constexpr int kKelvoMaxValues = 4000;
constexpr size_t kKelvoMaxRequestBytes = 256 * 1024;

// "" when `value` is one that `supported` offers (a range, a list of
// keywords or numbers, a boolean), else why not.
std::string kelvoCheckValue(ipp_attribute_t* value, ipp_attribute_t* supported);

// "" when the request is within the limits, else why not.
std::string kelvoCheckSize(ipp_t* request);

// "" when every vendor attribute in `request` (named in `vendor`, or with
// "-default" after it) has a value `driverAttrs` offers, else why not.
std::string kelvoCheckChoices(ipp_t* request, ipp_t* driverAttrs, const char* const* vendor, int numVendor);

// For the authentication callback, which PAPPL calls for every request it
// guards: HTTP_STATUS_CONTINUE, or the refusal (REQUEST_TOO_LARGE,
// BAD_REQUEST), with the reason in the log.
http_status_t kelvoGuardRequest(pappl_client_t* client);

// Web forms and the local socket set defaults without the guard above:
// remembers a printer's vendor defaults while they are all offered values,
// and puts the remembered ones back when a change leaves one that is not.
// Not from inside a PAPPL callback that holds the printer (events).
void kelvoGuardDefaults(pappl_printer_t* printer);
void kelvoForgetDefaults(int printerId);
