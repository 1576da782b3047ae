#include "app/request_guard.h"

#include "app/drivers.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace {

std::string attributeText(ipp_attribute_t* attr) {
  char text[256];
  ippAttributeString(attr, text, sizeof text);
  return std::string(ippGetName(attr)) + "=" + text;
}

struct DriverView {
  std::unique_ptr<pappl_pr_driver_data_t> data{new pappl_pr_driver_data_t()};
  ipp_t* attrs = nullptr;
  explicit DriverView(pappl_printer_t* printer) {
    papplPrinterGetDriverData(printer, data.get());
    attrs = papplPrinterGetDriverAttributes(printer);
  }
  ~DriverView() { ippDelete(attrs); }
  DriverView(const DriverView&) = delete;
  DriverView& operator=(const DriverView&) = delete;
};

// Each printer's last vendor defaults that were all offered values: the
// vendor attribute's name and the default's value as text, as
// papplPrinterSetDriverDefaults takes them.
std::mutex sDefaultsLock;
std::map<int, std::vector<std::pair<std::string, std::string>>> sGoodDefaults;

// The vendor defaults as text, as papplPrinterSetDriverDefaults takes them.
std::vector<std::pair<std::string, std::string>> vendorDefaults(const pappl_pr_driver_data_t& data, ipp_t* attrs) {
  std::vector<std::pair<std::string, std::string>> out;
  for (int i = 0; i < data.num_vendor; ++i) {
    const std::string name = data.vendor[i];
    if (ipp_attribute_t* value = ippFindAttribute(attrs, (name + "-default").c_str(), IPP_TAG_ZERO)) {
      char text[256];
      ippAttributeString(value, text, sizeof text);
      out.emplace_back(name, text);
    }
  }
  return out;
}

// What the printer's driver starts it with.
std::vector<std::pair<std::string, std::string>> driverDefaults(pappl_printer_t* printer) {
  std::unique_ptr<pappl_pr_driver_data_t> data(new pappl_pr_driver_data_t());
  ipp_t* attrs = nullptr;
  if (!kelvoDriverCallback(papplPrinterGetSystem(printer), papplPrinterGetDriverName(printer), nullptr, nullptr,
                           data.get(), &attrs, nullptr))
    return {};
  auto out = vendorDefaults(*data, attrs);
  ippDelete(attrs);
  return out;
}

}  // namespace

std::string kelvoCheckValue(ipp_attribute_t* value, ipp_attribute_t* supported) {
  if (ippGetCount(value) != 1) return attributeText(value) + ": one value expected";
  const ipp_tag_t have = ippGetValueTag(value), offered = ippGetValueTag(supported);
  bool ok = false;
  switch (offered) {
    case IPP_TAG_RANGE:
      if (have == IPP_TAG_INTEGER) {
        const int number = ippGetInteger(value, 0);
        for (int i = 0; i < ippGetCount(supported) && !ok; ++i) {
          int upper = 0;
          const int lower = ippGetRange(supported, i, &upper);
          ok = number >= lower && number <= upper;
        }
      }
      break;
    case IPP_TAG_BOOLEAN:
      ok = have == IPP_TAG_BOOLEAN;
      break;
    case IPP_TAG_INTEGER:
    case IPP_TAG_ENUM:
      ok = have == offered && ippContainsInteger(supported, ippGetInteger(value, 0));
      break;
    case IPP_TAG_KEYWORD:
      ok = have == IPP_TAG_KEYWORD && ippContainsString(supported, ippGetString(value, 0, nullptr));
      break;
    default:
      ok = have == offered;
      break;
  }
  return ok ? "" : attributeText(value) + " is not among " + attributeText(supported);
}

std::string kelvoCheckSize(ipp_t* request) {
  int attributes = 0, values = 0;
  for (ipp_attribute_t* attr = ippFirstAttribute(request); attr != nullptr; attr = ippNextAttribute(request)) {
    ++attributes;
    values += ippGetCount(attr);
    if (attributes > kKelvoMaxAttributes || values > kKelvoMaxValues)
      return "more than " + std::to_string(kKelvoMaxAttributes) + " attributes or " +
             std::to_string(kKelvoMaxValues) + " values";
  }
  if (ippLength(request) > kKelvoMaxRequestBytes)
    return "more than " + std::to_string(kKelvoMaxRequestBytes) + " bytes of attributes";
  return "";
}

std::string kelvoCheckChoices(ipp_t* request, ipp_t* driverAttrs, const char* const* vendor, int numVendor) {
  for (ipp_attribute_t* attr = ippFirstAttribute(request); attr != nullptr; attr = ippNextAttribute(request)) {
    const char* name = ippGetName(attr);
    if (name == nullptr) continue;
    for (int i = 0; i < numVendor; ++i) {
      const size_t length = std::strlen(vendor[i]);
      if (std::strncmp(name, vendor[i], length) != 0 ||
          (name[length] != '\0' && std::strcmp(name + length, "-default") != 0))
        continue;
      const std::string supportedName = std::string(vendor[i]) + "-supported";
      ipp_attribute_t* supported = ippFindAttribute(driverAttrs, supportedName.c_str(), IPP_TAG_ZERO);
      if (supported == nullptr) continue;
      std::string why = kelvoCheckValue(attr, supported);
      if (!why.empty()) return why;
    }
  }
  return "";
}

http_status_t kelvoGuardRequest(pappl_client_t* client) {
  ipp_t* request = papplClientGetRequest(client);
  if (request == nullptr) return HTTP_STATUS_CONTINUE;  // a web page
  std::string why = kelvoCheckSize(request);
  if (!why.empty()) {
    papplLogClient(client, PAPPL_LOGLEVEL_WARN, "Request refused: %s.", why.c_str());
    return HTTP_STATUS_REQUEST_TOO_LARGE;
  }
  pappl_printer_t* printer = papplClientGetPrinter(client);
  if (printer == nullptr) return HTTP_STATUS_CONTINUE;
  DriverView driver(printer);
  why = kelvoCheckChoices(request, driver.attrs, driver.data->vendor, driver.data->num_vendor);
  if (!why.empty()) {
    papplLogClient(client, PAPPL_LOGLEVEL_WARN, "Request refused: %s.", why.c_str());
    return HTTP_STATUS_BAD_REQUEST;
  }
  return HTTP_STATUS_CONTINUE;
}

void kelvoGuardDefaults(pappl_printer_t* printer) {
  DriverView driver(printer);
  std::string why;
  for (int i = 0; i < driver.data->num_vendor && why.empty(); ++i) {
    const std::string name = driver.data->vendor[i];
    ipp_attribute_t* value = ippFindAttribute(driver.attrs, (name + "-default").c_str(), IPP_TAG_ZERO);
    ipp_attribute_t* supported = ippFindAttribute(driver.attrs, (name + "-supported").c_str(), IPP_TAG_ZERO);
    if (value != nullptr && supported != nullptr) why = kelvoCheckValue(value, supported);
  }
  const int id = papplPrinterGetID(printer);
  std::vector<std::pair<std::string, std::string>> good;
  {
    std::lock_guard<std::mutex> hold(sDefaultsLock);
    if (why.empty()) {
      sGoodDefaults[id] = vendorDefaults(*driver.data, driver.attrs);
      return;
    }
    if (sGoodDefaults.count(id) != 0) good = sGoodDefaults[id];
  }
  // A printer changed before it was ever looked at starts from its driver's.
  if (good.empty()) good = driverDefaults(printer);
  papplLogPrinter(printer, PAPPL_LOGLEVEL_WARN, "Defaults put back to the ones before: %s.", why.c_str());
  cups_option_t* options = nullptr;
  int count = 0;
  for (const auto& choice : good) count = cupsAddOption(choice.first.c_str(), choice.second.c_str(), count, &options);
  papplPrinterSetDriverDefaults(printer, driver.data.get(), count, options);
  cupsFreeOptions(count, options);
}

void kelvoForgetDefaults(int printerId) {
  std::lock_guard<std::mutex> hold(sDefaultsLock);
  sGoodDefaults.erase(printerId);
}
