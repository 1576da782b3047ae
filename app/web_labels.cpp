#include "app/web_labels.h"

#include <set>

#include "app/drivers.h"

namespace {

// A JavaScript string literal of plain text.
std::string quoted(const char* text) {
  std::string out = "\"";
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p == '"' || *p == '\\') out += '\\';
    if (*p == '<') {
      out += "\\u003c";  // no "</script>" in the page
      continue;
    }
    out += *p;
  }
  return out + "\"";
}

// Puts each choice's words on its row's heading and options; an old
// keyword's option gives way to the one it stands for (selected if it
// was); every size option of the media lists takes the PPD's words.
const char kScript[] = R"(
document.addEventListener("DOMContentLoaded", function () {
  "use strict";
  Object.keys(choices).forEach(function (name) {
    var choice = choices[name];
    document.querySelectorAll('[name="' + name + '"]').forEach(function (field) {
      var row = field.closest("tr");
      var heading = row ? row.querySelector("th") : null;
      if (heading) heading.textContent = choice.text + ":";
      if (field.tagName !== "SELECT") return;
      Array.prototype.slice.call(field.options).forEach(function (option) {
        if (Object.prototype.hasOwnProperty.call(choice.old, option.value)) {
          if (option.selected) field.value = choice.old[option.value];
          option.remove();
        } else if (Object.prototype.hasOwnProperty.call(choice.values, option.value)) {
          option.textContent = choice.values[option.value];
        }
      });
    });
  });
  document.querySelectorAll("select option").forEach(function (option) {
    if (Object.prototype.hasOwnProperty.call(sizes, option.value)) option.textContent = sizes[option.value];
  });
});
)";

}  // namespace

std::string kelvoWebLabelsScript() {
  int count = 0;
  const KelvoChoice* choices = kelvoChoices(&count);
  std::string script = "var choices = {";
  for (int i = 0; i < count; ++i) {
    const KelvoChoice& choice = choices[i];
    std::string values, old;
    for (int w = 0; w < choice.numWords; ++w) {
      const KelvoWord& word = choice.words[w];
      if (word.text != nullptr) {
        values += (values.empty() ? "" : ", ") + quoted(word.keyword) + ": " + quoted(word.text);
        continue;
      }
      // An old keyword: the first one with words that stands for the same.
      for (int n = 0; n < choice.numWords; ++n)
        if (choice.words[n].text != nullptr && choice.words[n].value == word.value) {
          old += (old.empty() ? "" : ", ") + quoted(word.keyword) + ": " + quoted(choice.words[n].keyword);
          break;
        }
    }
    script += std::string(i > 0 ? ",\n  " : "\n  ") + quoted(choice.name) + ": {text: " + quoted(choice.text) +
              ", values: {" + values + "}, old: {" + old + "}}";
  }
  script += "\n};\nvar sizes = {";
  std::set<std::string> named;  // the printers share most names
  for (int d = 0; d < kelvoNumDrivers; ++d) {
    const KelvoModel* model = kelvoFindModel(kelvoDrivers[d].name);
    for (int m = 0; model != nullptr && m < model->numMedia; ++m) {
      if (!named.insert(model->media[m].pwgName).second) continue;
      script += std::string(named.size() > 1 ? ",\n  " : "\n  ") + quoted(model->media[m].pwgName) + ": " +
                quoted(model->media[m].text);
    }
  }
  return "(function () {\n" + script + "\n};\n" + kScript + "})();\n";
}

void kelvoWebLabelsStart(pappl_system_t* system) {
  static const std::string script = kelvoWebLabelsScript();
  papplSystemAddResourceString(system, "/kelvo/labels.js", "text/javascript", script.c_str());
  const char* footer = papplSystemGetFooterHTML(system);
  const std::string html =
      std::string(footer != nullptr ? footer : "") + "<script src=\"/kelvo/labels.js\"></script>";
  papplSystemSetFooterHTML(system, html.c_str());
}
