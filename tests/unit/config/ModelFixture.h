#ifndef VELA_TESTS_CONFIG_MODEL_FIXTURE_H
#define VELA_TESTS_CONFIG_MODEL_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "Portal.h"
#include "framework/NodeServices.h"
#include "model/MoTransaction.h"
#include "model/ModelFile.h"

/** A node's services in this process, whose log lines are kept. */
class NodeFixture : public testing::Test {
 protected:
  NodeFixture() {
    services.getLog().setSink([this](const VelaNode::HostLog::Line& line) {
      const std::lock_guard<std::mutex> lock(mutex);
      lines.push_back(line.text);
    });
    Vela::Portal::set(VelaNode::HostPortal::getTable());
  }
  ~NodeFixture() override { Vela::Portal::set(nullptr); }

  bool isLogged(const std::string& text) const {
    const std::lock_guard<std::mutex> lock(mutex);
    for (const std::string& line : lines) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }

  void forgetLines() {
    const std::lock_guard<std::mutex> lock(mutex);
    lines.clear();
  }

  mutable std::mutex mutex;
  std::vector<std::string> lines;
  VelaNode::NodeServices services;
};

/** A node with a model around the SNMP object. */
class ModelFixture : public NodeFixture {
 protected:
  static inline const std::string Functions = "ManagedElement=1,SystemFunctions=1";
  static inline const std::string Fm = Functions + ",Fm=1";
  static inline const std::string SysM = Functions + ",SysM=1";
  static inline const std::string Snmp = SysM + ",Snmp=1";
  static inline const std::string Tls = Functions + ",SecM=1,Tls=1";
  static inline const std::string Transport = "ManagedElement=1,Transport=1";

  ModelFixture() {
    VelaNode::MoTransaction transaction(services.getStore());
    for (const std::string& dn :
         {std::string("ManagedElement=1"), Functions, Fm, SysM, Snmp, Functions + ",SecM=1", Tls, Transport}) {
      transaction.create(dn);
    }
    transaction.commit();
  }

  struct Attribute {
    std::string name;
    std::string text; /**< as an operator writes it */
  };

  /** Creates an object below another, in one transaction with its attributes. */
  std::string create(const std::string& parent, const std::string& rdn, const std::vector<Attribute>& attributes = {}) {
    const std::string dn = parent + "," + rdn;
    VelaNode::MoTransaction transaction(services.getStore());
    transaction.create(dn);
    for (const Attribute& attribute : attributes) transaction.setText(dn, attribute.name, attribute.text);
    transaction.commit();
    return dn;
  }

  void set(const std::string& dn, const std::string& name, const std::string& text) {
    VelaNode::MoTransaction transaction(services.getStore());
    transaction.setText(dn, name, text);
    transaction.commit();
  }

  void remove(const std::string& dn) {
    VelaNode::MoTransaction transaction(services.getStore());
    transaction.remove(dn);
    transaction.commit();
  }
};

#endif
