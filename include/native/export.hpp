// Marks the classes and functions that make up the exported interface of the corvane shared
// libraries; everything else is built with hidden visibility.
#pragma once

// Gives a class or function default visibility: it is exported from the shared library.
#define CORVANE_EXPORT __attribute__((visibility("default")))
