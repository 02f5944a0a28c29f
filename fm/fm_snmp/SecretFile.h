#ifndef VELA_FM_SNMP_SECRET_FILE_H
#define VELA_FM_SNMP_SECRET_FILE_H

#include <string>

namespace VelaFmSnmp {

/** A file of mode 600 in the node's folder (without one: in the folder for temporary files) that lives as long as the
 *  object. It carries secrets to a tool, whose arguments everybody can see. */
class SecretFile {
 public:
  /** Throws Vela::VelaException when the file cannot be made or written; nothing is left behind then. */
  explicit SecretFile(const std::string& content);
  ~SecretFile();
  SecretFile(const SecretFile&) = delete;
  SecretFile& operator=(const SecretFile&) = delete;

  const std::string& getPath() const { return _path; }

 private:
  std::string _path;
};

}  // namespace VelaFmSnmp
#endif
