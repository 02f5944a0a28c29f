#ifndef VELA_NODE_MO_TRANSACTION_H
#define VELA_NODE_MO_TRANSACTION_H

#include <Poco/Dynamic/Var.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "model/MoStore.h"
#include "model/MoValue.h"

namespace VelaNode {

/**
 * A transaction on the store; aborted when it goes out of scope without commit. It reads what is committed, overlaid by
 * its own writes. One thread at a time.
 *
 * Failures are Vela::VelaException with a code (VELA_NOT_FOUND, VELA_INVALID, VELA_EXISTS, VELA_TIMEOUT) and a text of
 * one line that names the object, the attribute and the reason; the transaction stays as it was before the call.
 */
class MoTransaction {
 public:
  /** Policy VELA_MO_LOCK_...; the time-out is for getting the writer's lock, whenever that happens. */
  explicit MoTransaction(MoStore& store, int lockPolicy = VELA_MO_LOCK_ON_WRITE,
                         std::chrono::milliseconds timeout = std::chrono::seconds(60));
  ~MoTransaction();
  MoTransaction(const MoTransaction&) = delete;
  MoTransaction& operator=(const MoTransaction&) = delete;

  /** Null when there is no such object. */
  MoObjectPtr find(std::string_view dn);
  /** Throws VELA_NOT_FOUND "No such object: %s". */
  MoObjectPtr get(std::string_view dn);
  /** Walks the direct children in order; class "": all, parent "": the roots. The walk sees the moment of the call,
      so the visitor may write. Throws VELA_NOT_FOUND when the parent does not exist. */
  void traverse(std::string_view parentDn, std::string_view className, const MoTree::Visitor& visitor);
  std::vector<MoObjectPtr> children(std::string_view parentDn, std::string_view className = {});
  /** DN of the first instance of a class path ("ManagedElement,SystemFunctions,Fm"). */
  std::optional<std::string> findFirst(std::string_view classPath);

  /** Writes a single attribute. */
  void set(std::string_view dn, std::string_view name, const MoValue& value);
  void setSequence(std::string_view dn, std::string_view name, const std::vector<MoValue>& values);
  /** A text as an operator gives it: a struct or sequence is JSON, the empty text unsets. */
  void setText(std::string_view dn, std::string_view name, const std::string& text);
  /** A parsed JSON value; null unsets. */
  void setJson(std::string_view dn, std::string_view name, const Poco::Dynamic::Var& json);
  /** As it crossed the C interface; isSet false unsets. */
  void setAttribute(std::string_view dn, const VelaOamSpiMoAttribute_3T& attribute);
  /** Takes the value away: the attribute gets its default, or no value when there is none. */
  void unset(std::string_view dn, std::string_view name);

  /** Puts an object that holds what a record tells, or the record in place of what an object holds. */
  void put(std::string_view dn, MoRecordPtr record);
  /** A new object holds its class's defaults. */
  void create(std::string_view dn);
  /** Deletes an object with all below it. */
  void remove(std::string_view dn);

  /** Ends the transaction, also when it throws (then nothing has changed). Returns once the change is durable and
      handed to the listener: what really changed. */
  MoChanges commit();
  void abort() noexcept;
  bool isActive() const { return _isActive; }

 private:
  const MoTree& tree();
  void requireActive() const;
  void lock();
  void flush();
  void touch(const std::string& dn);
  MoObject& draft(std::string_view dn);
  template <class Maker>
  void write(std::string_view dn, std::string_view name, const Maker& make);
  void encryptPasswords();
  const MoClass& requirePlace(std::string_view dn);
  MoChanges diff(bool& mustPersist) const;
  void finish() noexcept;

  MoStore& _store;
  const std::chrono::milliseconds _timeout;
  bool _isActive = true;
  bool _isWriter = false;
  MoTree _base;                     /**< what was committed when the writer's lock was taken, or at the last read */
  MoTree _working;                  /**< _base with the own writes, but for the draft */
  std::shared_ptr<MoObject> _draft; /**< object of the last write, so that writing many attributes copies it once */
  std::unordered_set<std::string> _touched;
  std::vector<const std::string*> _touchedOrder;
};

}  // namespace VelaNode
#endif
