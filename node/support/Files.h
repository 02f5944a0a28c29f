#ifndef VELA_NODE_FILES_H
#define VELA_NODE_FILES_H

#include <string>
#include <string_view>

#include "support/FileDescriptor.h"

namespace VelaNode {

/** All of these throw Vela::VelaException "FILE: reason". */

/** A whole file's content. */
std::string readWholeFile(const std::string& path);
/** Replaces a file as a whole, with mode 600: whoever reads it, and whoever finds it after a loss of power, sees the
   old or the new content. */
void writeWholeFile(const std::string& path, std::string_view content);
/** Writes all; `path` is for the error's text. */
void writeAll(const FileDescriptor& file, std::string_view content, const std::string& path);
/** Makes what was created, renamed or removed in a file's folder durable. */
void syncFolderOf(const std::string& path);

/** A file of mode 600 that is written beside the one that it replaces, and is gone again unless it does. */
class NewFile {
 public:
  explicit NewFile(std::string finalPath);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  void write(std::string_view content) { writeAll(_file, content, _path); }
  /** Takes the final file's place, durably. Returns the open file, at its end. */
  FileDescriptor replace();

 private:
  const std::string _finalPath;
  std::string _path; /**< empty: it has its final name */
  FileDescriptor _file;
};

}  // namespace VelaNode
#endif
