#ifndef VELA_NODE_MO_STORE_H
#define VELA_NODE_MO_STORE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "model/MoChange.h"
#include "model/MoTree.h"

namespace VelaNode {

/**
 * The managed-object store: the committed model and the writer's lock. Reading never waits for a writer; changes are
 * made through MoTransaction. The hooks are set before other threads use the store.
 */
class MoStore {
 public:
  /** Gets the changes of a committed transaction, in commit order. Called with the writer's lock held: it hands over
      and returns, and begins no write of its own. */
  using Listener = std::function<void(const std::shared_ptr<const MoChanges>& changes)>;
  /** Makes the model durable. Called before the commit takes effect, and only when something that is kept in the model
      file has changed; when it throws, the commit fails with its text and nothing has changed. */
  using Persister = std::function<void(const MoTree& tree)>;
  /** Makes a cipher text of a password. When it throws, the commit fails with its text and nothing has changed. */
  using Encryptor = std::function<std::string(const std::string& clearText)>;

  MoStore() = default;
  MoStore(const MoStore&) = delete;
  MoStore& operator=(const MoStore&) = delete;

  void setListener(Listener listener) { _listener = std::move(listener); }
  void setPersister(Persister persister) { _persister = std::move(persister); }
  /** Every struct {cleartext: true, password} that a transaction writes becomes {cleartext: false, cipher text}. None:
      such structs are stored as they are. */
  void setEncryptor(Encryptor encryptor) { _encryptor = std::move(encryptor); }

  /** The committed model. Any thread. */
  MoTree getTree() const;

  /** Replaces the whole content without notification and without writing it back, passwords encrypted as in a commit.
      Before anybody else uses the store. True when a password was encrypted, so that the content is no longer what its
     source holds. */
  bool install(MoTree tree);

 private:
  friend class MoTransaction;

  bool lockWriter(std::chrono::milliseconds timeout);
  void unlockWriter();
  /** Returns a version without clear-text passwords; null when the object has none. */
  MoObjectPtr encrypted(const MoObject& object) const;
  /** Makes a tree the committed one. The caller holds the writer's lock. */
  void publish(const MoTree& tree, const std::shared_ptr<const MoChanges>& changes, bool mustPersist);

  mutable std::mutex _mutex;
  MoTree _tree;
  std::mutex _writerMutex;
  std::condition_variable _writerFreed;
  bool _hasWriter = false;
  Listener _listener;
  Persister _persister;
  Encryptor _encryptor;
};

}  // namespace VelaNode
#endif
