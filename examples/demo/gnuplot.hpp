// Drawing a PNG with gnuplot, installed by the set-up.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

namespace corvane::demo {

// Starts gnuplot with its output set to a PNG of width x height pixels at `path`, lets
// write_script write the rest of the script to it, and waits for the drawing. Throws
// std::runtime_error when gnuplot does not start or does not draw.
void DrawPng(const std::string& path, int width, int height,
             const std::function<void(std::FILE*)>& write_script);

}  // namespace corvane::demo
