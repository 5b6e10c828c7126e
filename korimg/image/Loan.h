// Pixels that change hands for a scope.
#pragma once

#include "korimg/image/CVelImage.h"

namespace korimg {

/// Lends an image's pixels to an operation's object that measures them or works on them, for a scope; they
/// come back whatever ends it.
template <class Borrower>
struct Loan {
  CVelImage& owner;
  Borrower borrower;

  explicit Loan(CVelImage& image) : owner(image) { borrower.Swap(&owner); }
  ~Loan() { borrower.Swap(&owner); }
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;
};

}  // namespace korimg
