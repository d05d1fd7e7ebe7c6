#include "demo/gnuplot.hpp"

#include <csignal>
#include <filesystem>
#include <stdexcept>

namespace corvane::demo {

namespace {

// Single-quoted gnuplot string: a quote inside is doubled.
std::string GnuplotQuoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

void DrawPng(const std::string& path, int width, int height,
             const std::function<void(std::FILE*)>& write_script) {
  // Without gnuplot the pipe closes early; writes then fail instead of ending the program.
  std::signal(SIGPIPE, SIG_IGN);
  std::FILE* gnuplot = popen("gnuplot", "w");
  if (gnuplot == nullptr) throw std::runtime_error("Cannot start gnuplot.");
  std::fprintf(gnuplot, "set terminal pngcairo size %d,%d\nset output %s\n", width, height,
               GnuplotQuoted(path).c_str());
  write_script(gnuplot);
  if (pclose(gnuplot) != 0) {
    throw std::runtime_error("gnuplot could not draw " + path + " (is gnuplot-nox installed?).");
  }
  std::printf("Plot written to %s\n", std::filesystem::absolute(path).c_str());
}

}  // namespace corvane::demo
