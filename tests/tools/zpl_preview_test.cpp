#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/png_io.h"

namespace {

struct Outcome {
  int status;
  std::string out;
};

// Runs zplpreview in `dir` with the job on standard input.
Outcome preview(const std::string& dir, const std::string& job) {
  const std::string jobPath = dir + "/job.zpl";
  FILE* f = std::fopen(jobPath.c_str(), "wb");
  std::fwrite(job.data(), 1, job.size(), f);
  std::fclose(f);
  const std::string command =
      std::string("cd ") + dir + " && " + ZPLPREVIEW_PATH + " -o " + dir + "/p < job.zpl 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  Outcome run{-1, ""};
  for (int c; (c = std::fgetc(pipe)) != EOF;) run.out.push_back(static_cast<char>(c));
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

TEST(ZplPreview, WritesOnePngPagePerGraphic) {
  char pattern[] = "/tmp/kelvo-preview-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string dir = pattern;

  const Outcome ok = preview(dir, "^XX\r\n~DGR:CUPS.GRF,4,1,\nF0:,01\n^XZ\r\n~DGR:B.GRF,1,1,\n80\n^XZ");
  EXPECT_EQ(ok.status, 0) << ok.out;
  EXPECT_EQ(ok.out, dir + "/p-1.png: 8 x 4 dots, 9 printed (graphic R:CUPS.GRF)\n" + dir +
                        "/p-2.png: 8 x 1 dots, 1 printed (graphic R:B.GRF)\n");
  GrayPage page;
  std::string error;
  ASSERT_TRUE(kelvoPngReadGray(dir + "/p-1.png", page, error)) << error;
  EXPECT_EQ(page.width, 8u);
  EXPECT_EQ(page.height, 4u);
  std::vector<unsigned char> expected(32, 255);
  for (int x = 0; x < 4; ++x) expected[x] = expected[8 + x] = 0;  // F0 twice
  expected[31] = 0;                                                // 01
  EXPECT_EQ(page.pixels, expected);

  const Outcome bad = preview(dir, "~DGR:CUPS.GRF,2,1,\nzF");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.out, "zplpreview: standard input: byte 19: repeat count runs past the end of the row\n");

  const Outcome none = preview(dir, "^XA^XZ");
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.out, "zplpreview: standard input: the job downloads no graphic\n");

  for (const char* name : {"/job.zpl", "/p-1.png", "/p-2.png"}) std::remove((dir + name).c_str());
  rmdir(dir.c_str());
}

}  // namespace
