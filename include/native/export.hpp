// Marks the classes and functions that make up the exported interface of the corvane shared
// libraries; everything else is built with hidden visibility.
#pragma once

// Gives a class or function default visibility: it is exported from the shared library.
#define CORVANE_EXPORT __attribute__((visibility("default")))

// Marks the private implementation object of an exported class, which would otherwise be exported
// with the class that declares it.
#define CORVANE_HIDDEN __attribute__((visibility("hidden")))
