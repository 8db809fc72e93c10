// Singular value decomposition and the index-carrying quicksort behind it.
//
// svdcmp is the classic Golub-Reinsch routine (Householder bidiagonalisation,
// accumulation of the transformations, implicit-shift QR on the bidiagonal
// form), translated to zero-based row-major storage with the super-diagonal
// work vector supplied by the caller. Its loop order, scaling, sign choices
// and the exact-equality negligibility test are kept as published because
// they fix the signs of the singular vectors the tracker sees.
#include "SVD_NR.h"

#include <cmath>
#include <cstdio>

namespace ZOTtracker {

namespace {

// |a| with the sign of b (b = 0 counts as positive).
inline double signOf(double a, double b) { return b >= 0.0 ? std::fabs(a) : -std::fabs(a); }

// The depth of myQuickSort's partition stack.
constexpr int QUICKSORT_MAX_LEVELS = 1000;

}  // namespace

double pythag(double a, double b) {
  const double p = std::fabs(a);
  const double q = std::fabs(b);
  if (p > q) {
    const double r = q / p;
    return p * std::sqrt(1.0 + r * r);
  }
  if (q == 0.0) return 0.0;
  const double r = p / q;
  return q * std::sqrt(1.0 + r * r);
}

namespace {

// Row-major element access to a rows x cols matrix.
struct RowMajor {
  double* p;
  long cols;
  double& operator()(long r, long c) const { return p[r * cols + c]; }
};

// Householder reduction of the m x n matrix a to bidiagonal form: diagonal
// into w, super-diagonal into rv1 (rv1[0] = 0), the transformations left in a.
// Returns anorm, the largest |w_i| + |rv1_i|, for the negligibility tests.
double bidiagonalise(double* a, long m, long n, double* w, double* rv1) {
  const RowMajor aa{a, n};
  long i, j, k, l;
  double anorm, f, g, h, s, scale;
  g = scale = anorm = 0.0;
  for (i = 0; i < n; i++) {
    l = i + 1;
    rv1[i] = scale * g;
    g = s = scale = 0.0;
    if (i < m) {
      for (k = i; k < m; k++) scale += std::fabs(aa(k, i));
      if (scale != 0.0) {
        for (k = i; k < m; k++) {
          aa(k, i) /= scale;
          s += aa(k, i) * aa(k, i);
        }
        f = aa(i, i);
        g = -signOf(std::sqrt(s), f);
        h = f * g - s;
        aa(i, i) = f - g;
        for (j = l; j < n; j++) {
          for (s = 0.0, k = i; k < m; k++) s += aa(k, i) * aa(k, j);
          f = s / h;
          for (k = i; k < m; k++) aa(k, j) += f * aa(k, i);
        }
        for (k = i; k < m; k++) aa(k, i) *= scale;
      }
    }
    w[i] = scale * g;
    g = s = scale = 0.0;
    if (i < m && i != n - 1) {
      for (k = l; k < n; k++) scale += std::fabs(aa(i, k));
      if (scale != 0.0) {
        for (k = l; k < n; k++) {
          aa(i, k) /= scale;
          s += aa(i, k) * aa(i, k);
        }
        f = aa(i, l);
        g = -signOf(std::sqrt(s), f);
        h = f * g - s;
        aa(i, l) = f - g;
        for (k = l; k < n; k++) rv1[k] = aa(i, k) / h;
        for (j = l; j < m; j++) {
          for (s = 0.0, k = l; k < n; k++) s += aa(j, k) * aa(i, k);
          for (k = l; k < n; k++) aa(j, k) += s * rv1[k];
        }
        for (k = l; k < n; k++) aa(i, k) *= scale;
      }
    }
    const double rowNorm = std::fabs(w[i]) + std::fabs(rv1[i]);
    anorm = anorm > rowNorm ? anorm : rowNorm;
  }
  return anorm;
}

// Accumulates the right-hand transformations, stored in a's rows by
// bidiagonalise, into the n x n matrix v.
void accumulateRight(double* a, long n, double* v, const double* rv1) {
  const RowMajor aa{a, n};
  const RowMajor vv{v, n};
  long i, j, k, l = 0;
  double g = 0.0, s;
  for (i = n - 1; i >= 0; i--) {
    if (i < n - 1) {
      if (g != 0.0) {
        // Double division avoids a possible underflow.
        for (j = l; j < n; j++) vv(j, i) = (aa(i, j) / aa(i, l)) / g;
        for (j = l; j < n; j++) {
          for (s = 0.0, k = l; k < n; k++) s += aa(i, k) * vv(k, j);
          for (k = l; k < n; k++) vv(k, j) += s * vv(k, i);
        }
      }
      for (j = l; j < n; j++) vv(i, j) = vv(j, i) = 0.0;
    }
    vv(i, i) = 1.0;
    g = rv1[i];
    l = i;
  }
}

// Accumulates the left-hand transformations in place: a becomes the m x n
// matrix of left singular vectors of the bidiagonal form.
void accumulateLeft(double* a, long m, long n, const double* w) {
  const RowMajor aa{a, n};
  long i, j, k, l;
  double f, g, s;
  for (i = (m < n ? m : n) - 1; i >= 0; i--) {
    l = i + 1;
    g = w[i];
    for (j = l; j < n; j++) aa(i, j) = 0.0;
    if (g != 0.0) {
      g = 1.0 / g;
      for (j = l; j < n; j++) {
        for (s = 0.0, k = l; k < m; k++) s += aa(k, i) * aa(k, j);
        f = (s / aa(i, i)) * g;
        for (k = i; k < m; k++) aa(k, j) += f * aa(k, i);
      }
      for (j = i; j < m; j++) aa(j, i) *= g;
    } else {
      for (j = i; j < m; j++) aa(j, i) = 0.0;
    }
    ++aa(i, i);
  }
}

// Splits the bidiagonal form above row k: returns the smallest l such that
// rv1[l+1..k] are not negligible; *cancel is set when rv1[l] is not
// negligible either but w[l-1] is, so that rv1[l] must be cancelled first.
long findSplit(long k, const double* w, const double* rv1, double anorm, bool* cancel) {
  long l;
  *cancel = true;
  for (l = k; l >= 0; l--) {
    // rv1[0] is always zero for finite input; l == 0 is taken as
    // negligible outright so that w[-1] is never read (NaN input).
    if (l == 0 || std::fabs(rv1[l]) + anorm == anorm) {
      *cancel = false;
      break;
    }
    if (std::fabs(w[l - 1]) + anorm == anorm) break;
  }
  return l;
}

// w[l-1] is negligible: cancels rv1[l] by rotations on a's columns.
void cancelSuperdiagonal(double* a, long m, long n, double* w, double* rv1, double anorm, long l,
                         long k) {
  const RowMajor aa{a, n};
  const long nm = l - 1;
  double c = 0.0, s = 1.0, f, g, h, y, z;
  for (long i = l; i <= k; i++) {
    f = s * rv1[i];
    rv1[i] = c * rv1[i];
    if (std::fabs(f) + anorm == anorm) break;
    g = w[i];
    h = pythag(f, g);
    w[i] = h;
    h = 1.0 / h;
    c = g * h;
    s = -f * h;
    for (long j = 0; j < m; j++) {
      y = aa(j, nm);
      z = aa(j, i);
      aa(j, nm) = y * c + z * s;
      aa(j, i) = z * c - y * s;
    }
  }
}

// One implicit-shift QR sweep on rows l..k of the bidiagonal form, with the
// rotations applied to v's and a's columns.
void qrSweep(double* a, long m, long n, double* w, double* v, double* rv1, long l, long k) {
  const RowMajor aa{a, n};
  const RowMajor vv{v, n};
  long i, j, jj;
  double c, f, g, h, s, x, y, z;
  // Shift from the bottom 2 x 2 minor.
  z = w[k];
  x = w[l];
  const long nm = k - 1;
  y = w[nm];
  g = rv1[nm];
  h = rv1[k];
  f = ((y - z) * (y + z) + (g - h) * (g + h)) / (2.0 * h * y);
  g = pythag(f, 1.0);
  f = ((x - z) * (x + z) + h * ((y / (f + signOf(g, f))) - h)) / x;
  // Next QR transformation: chase the bulge from l down to k.
  c = s = 1.0;
  for (j = l; j <= nm; j++) {
    i = j + 1;
    g = rv1[i];
    y = w[i];
    h = s * g;
    g = c * g;
    z = pythag(f, h);
    rv1[j] = z;
    c = f / z;
    s = h / z;
    f = x * c + g * s;
    g = g * c - x * s;
    h = y * s;
    y *= c;
    for (jj = 0; jj < n; jj++) {
      x = vv(jj, j);
      z = vv(jj, i);
      vv(jj, j) = x * c + z * s;
      vv(jj, i) = z * c - x * s;
    }
    z = pythag(f, h);
    w[j] = z;
    // A zero-length rotation keeps the previous cosine and sine.
    if (z != 0.0) {
      z = 1.0 / z;
      c = f * z;
      s = h * z;
    }
    f = c * g + s * y;
    x = c * y - s * g;
    for (jj = 0; jj < m; jj++) {
      y = aa(jj, j);
      z = aa(jj, i);
      aa(jj, j) = y * c + z * s;
      aa(jj, i) = z * c - y * s;
    }
  }
  rv1[l] = 0.0;
  rv1[k] = f;
  w[k] = x;
}

// Diagonalises the bidiagonal form from the bottom up: for each singular
// value, QR sweeps until its super-diagonal element is negligible. Returns 0,
// or -7 when one value needs more than 30 sweeps.
int diagonalise(double* a, long m, long n, double* w, double* v, double* rv1, double anorm) {
  for (long k = n - 1; k >= 0; k--) {
    for (int its = 1; its <= 30; its++) {
      bool cancel;
      const long l = findSplit(k, w, rv1, anorm, &cancel);
      if (cancel) cancelSuperdiagonal(a, m, n, w, rv1, anorm, l, k);
      if (l == k) {
        // Converged: make the singular value non-negative.
        const double z = w[k];
        if (z < 0.0) {
          w[k] = -z;
          for (long j = 0; j < n; j++) v[j * n + k] = -v[j * n + k];
        }
        break;
      }
      if (its == 30) return -7;
      qrSweep(a, m, n, w, v, rv1, l, k);
    }
  }
  return 0;
}

}  // namespace

int svdcmp(double* a, long m, long n, double* w, double* v, double* rv1) {
  if (rv1 == nullptr) {
    std::printf("ERROR - Not enough memory for rv1 in svdcmp\n");
    return -1;
  }
  if (m < 0 || n < 0) return -1;
  // Arrays of zero size may be null; the others must be there.
  if ((a == nullptr && m * n > 0) || ((w == nullptr || v == nullptr) && n > 0)) return -1;

  const double anorm = bidiagonalise(a, m, n, w, rv1);
  accumulateRight(a, n, v, rv1);
  accumulateLeft(a, m, n, w);
  return diagonalise(a, m, n, w, v, rv1, anorm);
}

int myQuickSort(double* values, int* index, int n) {
  if (n <= 0) return 0;
  if (values == nullptr || index == nullptr) return -1;
  int begin[QUICKSORT_MAX_LEVELS];
  int end[QUICKSORT_MAX_LEVELS];
  for (int i = 0; i < n; i++) index[i] = i;
  begin[0] = 0;
  end[0] = n;
  int level = 0;
  while (level >= 0) {
    int L = begin[level];
    int R = end[level] - 1;
    if (L >= R) {
      level--;
      continue;
    }
    const double pivot = values[L];
    const int pivotIndex = index[L];
    if (level == QUICKSORT_MAX_LEVELS - 1) return -8;
    // Hole-filling partition: the hole starts at the pivot's place.
    while (L < R) {
      while (values[R] >= pivot && L < R) R--;
      if (L < R) {
        values[L] = values[R];
        index[L++] = index[R];
      }
      while (values[L] <= pivot && L < R) L++;
      if (L < R) {
        values[R] = values[L];
        index[R--] = index[L];
      }
    }
    values[L] = pivot;
    index[L] = pivotIndex;
    // The right part goes on top and is sorted first; the left part takes
    // over the current level.
    begin[level + 1] = L + 1;
    end[level + 1] = end[level];
    end[level] = L;
    level++;
  }
  return 0;
}

int matrixSVD(const double* A, int m, int n, double* W, double* U, double* V, int transposeU,
              int transposeV, double* work, int* index) {
  // Without a work array svdcmp reports the missing vector itself; no
  // pointer arithmetic is done on the null pointer.
  if (work == nullptr) return svdcmp(nullptr, m, n, W, V, nullptr);
  if (m < 0 || n < 0) return -1;
  const long mn = static_cast<long>(m) * n;
  const long nn = static_cast<long>(n) * n;
  if (((A == nullptr || U == nullptr) && mn > 0) ||
      ((W == nullptr || V == nullptr || index == nullptr) && n > 0))
    return -1;

  for (long i = 0; i < mn; i++) work[i] = A[i];

  const int code = svdcmp(work, m, n, W, V, work + (nn > mn ? nn : mn));
  if (code != 0) return code;

  // The sort's -8 (more than 1000 levels) is ignored on purpose: W then stays
  // partly sorted and the decomposition itself is still valid.
  myQuickSort(W, index, n);
  for (int j = 0; j < n / 2; j++) {
    const double tw = W[j];
    W[j] = W[n - 1 - j];
    W[n - 1 - j] = tw;
    const int ti = index[j];
    index[j] = index[n - 1 - j];
    index[n - 1 - j] = ti;
  }

  // work holds the unsorted U (m x n); permute its columns into U.
  for (int j = 0; j < n; j++) {
    const int src = index[j];
    for (int i = 0; i < m; i++) {
      const double value = work[static_cast<long>(i) * n + src];
      if (transposeU)
        U[static_cast<long>(j) * m + i] = value;
      else
        U[static_cast<long>(i) * n + j] = value;
    }
  }

  for (long i = 0; i < nn; i++) work[i] = V[i];
  for (int j = 0; j < n; j++) {
    const int src = index[j];
    for (int k = 0; k < n; k++) {
      const double value = work[static_cast<long>(k) * n + src];
      if (transposeV)
        V[static_cast<long>(j) * n + k] = value;
      else
        V[static_cast<long>(k) * n + j] = value;
    }
  }
  return 0;
}

}  // namespace ZOTtracker
