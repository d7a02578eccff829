// Replacing a file whole, so that a reader sees the old content or the new
// and never a part of either.
//
// Thread safety: safe from any thread; two writers of one path race on its
// scratch file and the last rename wins.
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

}  // namespace tolvanger::port

#endif  // TOLVANGER_PORT_FILES_H_
