// The process-wide trace file "log.txt" and hexadecimal dumps, for diagnosis only. A text goes to
// the file by one stdio call, so lines of several threads may follow each other in any order. Do
// not close the trace while others write.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>

/// Opens "log.txt" in the current directory unless it is open. The process's first opening empties
/// the file, later ones append to it. Thread-safe.
void initTrace();

/// Opens the trace if needed and writes the text to it as printf would, with nothing added. Returns
/// the characters written; below 0 for null, a failed write, or when the file cannot be opened.
[[gnu::format(printf, 1, 2)]] int tolog(const char *format, ...);

/// Closes the trace file. The next initTrace or tolog opens it again and appends.
void destroyTrace();

/// The byte as a dump shows it: itself if printable ASCII, else '.'.
char tran_c2c(int byte);

/// The file's name in a path: what follows the last '/'. Null for null.
const char *get_name(const char *path);

/// Dump `n` bytes, 16 a line: the offset as "0x%04x", the bytes in hexadecimal, the characters.
/// Return the lines printed; 0 for `n` < 1; -1 for a null argument or a failed write.
int printOctet(const void *bytes, int n);
int printOctetToFile(FILE *stream, const void *bytes, int n);
