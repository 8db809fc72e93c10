/// @file
/// Singular value decomposition (Golub-Reinsch with Householder
/// bidiagonalisation and implicit-shift QR, in the classic published form)
/// and the index-carrying non-recursive quicksort that orders its values.
/// The kernel's loop order, scaling, sign choices and exact-equality
/// negligibility test are kept as published: they decide the signs of the
/// singular vectors that callers see.
#pragma once

namespace ZOTtracker {

/// Thin SVD A = U*diag(W)*V^T of the m x n matrix A (not modified), with W in
/// decreasing order. U gets m*n values: m x n with column j the j-th left
/// singular vector, or (transposeU != 0) n x m with row j that vector. V gets
/// n*n values likewise (transposeV). `work` holds at least
/// max(n*n, m*n) + n doubles, `index` n ints: on return index[j] is the column
/// of the unsorted decomposition that became column j. Returns 0, -1 (work
/// missing, with svdcmp's message; nothing is touched) or -7 (no convergence;
/// outputs undefined). Any other null array of non-zero size or a negative
/// dimension also gives -1, silently, with nothing written. The quicksort's
/// -8 is ignored, leaving W partly sorted for n > 1000. NaN or Inf input ends
/// in 0 or -7 and never loops.
int matrixSVD(const double* A, int m, int n, double* W, double* U, double* V, int transposeU,
              int transposeV, double* work, int* index);

/// The kernel: a (m x n, row-major) is replaced by U, w gets the n unsorted
/// singular values (all >= 0), v the n x n V, rv1 is an n-double work vector.
/// Returns 0; -1 after printing "ERROR - Not enough memory for rv1 in svdcmp"
/// when rv1 is null; -7 (no message) when a singular value has not converged
/// at its 30th iteration, i.e. after 29 QR sweeps; -1 without a message for a
/// null a, w or v of non-zero size or a negative dimension.
int svdcmp(double* a, long m, long n, double* w, double* v, double* rv1);

/// sqrt(a^2 + b^2) without destructive overflow or underflow.
double pythag(double a, double b);

/// Sorts values[0..n) ascending in place and fills index with the original
/// positions. Non-recursive with a 1000-level partition stack; returns 0, or
/// -8 when the stack is exhausted (e.g. more than 1000 already sorted values;
/// the arrays are then partly sorted). Not stable. n <= 0 returns 0 at once;
/// a null array with n > 0 returns -1.
int myQuickSort(double* values, int* index, int n);

}  // namespace ZOTtracker
