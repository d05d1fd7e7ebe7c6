// A header with one declaration that has no contract comment: the reference manual fails on it.
#pragma once

// Documented.
void Documented();

void Undocumented();
