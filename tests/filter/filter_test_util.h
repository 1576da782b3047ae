#pragma once
// Shared by the filter configuration tests: capture what the setup commands
// write, and write small PPD files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>

#include "printer/kelvo_printer.h"

// A printer whose one stream is a temporary file, published as sPrinter.
class CapturePrinter : public KelvoPrinter {
 public:
  CapturePrinter() : file_(std::tmpfile()) { getOutputStreams().front() = file_; sPrinter = this; }
  ~CapturePrinter() override { sPrinter = nullptr; std::fclose(file_); }
  void doPrintImage(const unsigned char*, unsigned long, unsigned long, unsigned long) override {}
  std::string contents() {
    std::string text(static_cast<size_t>(std::ftell(file_)), '\0');
    std::rewind(file_);
    text.resize(std::fread(&text[0], 1, text.size(), file_));
    return text;
  }

 private:
  FILE* file_;
};

inline std::string printed(const std::function<void()>& write) {
  CapturePrinter printer;
  write();
  return printer.contents();
}

// A temporary file, removed at the end; the process id keeps test cases that
// ctest runs in parallel apart.
struct TempFile {
  TempFile(const std::string& name, const std::string& text)
      : path(testing::TempDir() + "kelvo_" + std::to_string(getpid()) + "_" + name) { std::ofstream(path) << text; }
  ~TempFile() { std::remove(path.c_str()); }
  std::string path;
};

inline std::string ppdText(const std::string& body) {
  return "*PPD-Adobe: \"4.3\"\n*FormatVersion: \"4.3\"\n*LanguageVersion: English\n*LanguageEncoding: ISOLatin1\n" +
         body;
}

// A PickOne option with its declared default and choices.
inline std::string ppdOption(const std::string& name, const std::string& def,
                             std::initializer_list<std::string> choices) {
  std::string text = "*OpenUI *" + name + ": PickOne\n*Default" + name + ": " + def + "\n";
  for (const std::string& choice : choices) text += "*" + name + " " + choice + ": \"\"\n";
  return text + "*CloseUI: *" + name + "\n";
}
