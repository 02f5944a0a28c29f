#ifndef VELA_NODE_NODE_FOLDER_H
#define VELA_NODE_NODE_FOLDER_H

#include <filesystem>

#include "support/FileDescriptor.h"

namespace VelaNode {

/** The folder that holds everything of a node. Failures are Vela::VelaException that names the file. */
class NodeFolder {
 public:
  /** Makes the folder (mode 700) when it is missing, checks that nobody else has a hand in it (NodeFiles::FileFault),
      and locks it until destruction. A second one on the same folder throws and has touched nothing. */
  explicit NodeFolder(const std::filesystem::path& path);

  /** Makes what belongs into the folder and is missing (mode 700). */
  void makeTree() const;

  const std::filesystem::path& path() const { return _path; } /**< absolute */
  std::filesystem::path model() const { return _path / "model.xml"; }
  std::filesystem::path configuration() const { return _path / "config.xml"; }
  std::filesystem::path alarms() const { return _path / "alarms.journal"; }
  std::filesystem::path log() const { return _path / "log" / "node.log"; }
  std::filesystem::path controlSocket() const;

 private:
  void lock();

  std::filesystem::path _path;
  FileDescriptor _lock;
};

}  // namespace VelaNode
#endif
