#ifndef VELA_NODE_MODEL_FILE_H
#define VELA_NODE_MODEL_FILE_H

#include <string>

#include "model/MoStore.h"

namespace VelaNode {

/** The configuration part of the model as a readable XML file. */
class ModelFile {
 public:
  explicit ModelFile(std::string path) : _path(std::move(path)) {}

  const std::string& getPath() const { return _path; }

  /** Reads the file into the store, whose content it replaces. Throws Vela::VelaException "FILE:LINE: reason" (a file
      that cannot be read: "FILE: reason"); the store is as it was then. When the file held clear-text passwords and the
      store encrypts, the file is rewritten at once. */
  void load(MoStore& store) const;
  /** Writes the file atomically (mode 600) and returns once it is on the disk. Throws Vela::VelaException. */
  void save(const MoTree& tree) const;

  /** The model of a node that was given none; also the text of the sample file. */
  static const char* getDefaultText();
  /** Reads a model text; `name` stands for the file's name in messages. */
  static MoTree parse(const std::string& text, const std::string& name);
  static std::string format(const MoTree& tree);

 private:
  std::string _path;
};

}  // namespace VelaNode
#endif
