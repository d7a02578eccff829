// Writing files so that a reader never sees half of a write: a file replaced
// whole, and a line appended whole or not at all.
//
// Thread safety: safe from any thread. Two writers of one path race on its
// scratch file and the last rename wins; appends to one file are serialised
// by their callers. The test hook is an atomic pointer and may be set from
// any thread, though tests set it while no other thread writes.
#ifndef TOLVANGER_PORT_FILES_H_
#define TOLVANGER_PORT_FILES_H_

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace tolvanger::port {

// Writes `size` bytes to "<path>.tmp" with mode `mode` (forced, even over a
// scratch file left from before), flushes it to disk and renames it over
// `path`. The scratch name is never followed if it is a symbolic link.
// Returns 0, or the errno of the step that failed; the scratch file is then
// removed and `path` is as it was.
int replaceFile(const std::string& path, const void* data, size_t size,
                mode_t mode);

// Appends `size` bytes, one or more whole lines each ended by a line feed, to
// the existing file `path`. A file whose last byte is not a line feed (a line
// torn before) gets one first, so the new lines start lines of their own. On
// a short or failed write the file is cut back to the length it had, so what
// was asked for is on disk whole or not at all. Returns 0, ENOENT when there
// is no such file (the caller makes it with `replaceFile`), or the errno of
// the step that failed.
int appendLines(const std::string& path, const void* data, size_t size);

// Stands in for write(2) in every write above. Tests set one to make writes
// fail or fall short, as a full disk does; null, the default, is write(2).
using WriteFunction = ssize_t (*)(int fd, const void* data, size_t size);
void setWriteFunctionForTesting(WriteFunction write);

}  // namespace tolvanger::port

#endif  // TOLVANGER_PORT_FILES_H_
