#pragma once

#include "qelss/Export.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/platform/QelException.h"

namespace QelSS {

// Thrown by value constructors; factories return its code.
class QELSS_EXPORT DataTypeException : public QelException::StdErrException {
 public:
  using StdErrException::StdErrException;
  ~DataTypeException() override;
  StdErrException* copyThis() const override;
  [[noreturn]] void deleteAndRethrow() override;
};

// Thrown by the constructors of observers, domains, storage and the importer.
class QELSS_EXPORT QelSharedSettingsException : public QelException::StdErrException {
 public:
  using StdErrException::StdErrException;
  ~QelSharedSettingsException() override;
  StdErrException* copyThis() const override;
  [[noreturn]] void deleteAndRethrow() override;
};

// Thrown by the client connection constructor.
class QELSS_EXPORT ConnectionException : public QelException::StdErrException {
 public:
  using StdErrException::StdErrException;
  ~ConnectionException() override;
  StdErrException* copyThis() const override;
  [[noreturn]] void deleteAndRethrow() override;
};

// Thrown by the transaction constructor with the transaction's failure code.
class QELSS_EXPORT TransactionException : public QelException::StdErrException {
 public:
  using StdErrException::StdErrException;
  ~TransactionException() override;
  StdErrException* copyThis() const override;
  [[noreturn]] void deleteAndRethrow() override;
};

}  // namespace QelSS
