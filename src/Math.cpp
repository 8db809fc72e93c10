// Matrix and vector routines, rotations, poses and twists.
#include "Math.h"

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "SVD_NR.h"

namespace ZOTtracker {

namespace {

// Thresholds of the small-angle branches: 2^-52 for Rodrigues, 2^-26 (the
// square root of the machine epsilon) for the twist exponential and logarithm.
constexpr double kRodriguesEps = DBL_EPSILON;
constexpr double kTwistEps = 1.4901161193847656e-8;

constexpr double kDegToRad = ZOT_PI / 180.0;
constexpr double kRadToDeg = 180.0 / ZOT_PI;

// Outputs that alias an input are reported and computed anyway: callers rely
// on the warning, not on a refusal.
inline void warnInPlace(const char* name) {
  printf("####### ERROR: %s not implemented for in-place operation!\n", name);
}

inline void checkAlias(const char* name, const double* out, const double* a, const double* b) {
  if (out == a || out == b) warnInPlace(name);
}

}  // namespace

// ================================================================ general size
void matrixProduct(const double* A, const double* B, double* C, int m, int k, int n) {
  checkAlias("matrixProduct", C, A, B);
  for (int i = 0; i < m; i++) {
    for (int j = 0; j < n; j++) {
      // Summed in a register, in the same order as into a zeroed C.
      double sum = 0.0;
      for (int l = 0; l < k; l++) sum += A[i * k + l] * B[l * n + j];
      C[i * n + j] = sum;
    }
  }
}

void matrixTranspose(const double* A, double* B, int m, int n) {
  if (A == B) printf("ERROR: matrixTranspose not implemented for in-place operation!!!\n");
  for (int i = 0; i < m; i++) {
    for (int j = 0; j < n; j++) B[j * m + i] = A[i * n + j];
  }
}

void matrixCopy(const double* A, double* B, int m, int n) {
  const int count = m * n;
  for (int i = 0; i < count; i++) B[i] = A[i];
}

void imageCopy(const unsigned char* src, unsigned char* dst, int width, int height) {
  const int count = width * height;
  if (count > 0) memcpy(dst, src, (size_t)count);
}

void matrixZero(double* A, int m, int n) {
  const int count = m * n;
  for (int i = 0; i < count; i++) A[i] = 0.0;
}

void matrixIdentity(double* A, int n) {
  matrixZero(A, n, n);
  for (int i = 0; i < n; i++) A[i * n + i] = 1.0;
}

void matrixSum(const double* A, const double* B, double* C, int m, int n) {
  const int count = m * n;
  for (int i = 0; i < count; i++) C[i] = A[i] + B[i];
}

void matrixSub(const double* A, const double* B, double* C, int m, int n) {
  const int count = m * n;
  for (int i = 0; i < count; i++) C[i] = A[i] - B[i];
}

void matrixScale(const double* A, double* B, double factor, int m, int n) {
  const int count = m * n;
  for (int i = 0; i < count; i++) B[i] = factor * A[i];
}

bool isFiniteArray(const double* v, int n) {
  if (v == nullptr) return false;
  for (int i = 0; i < n; i++)
    if (!std::isfinite(v[i])) return false;
  return true;
}

double norm(const double* v, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; i++) sum += v[i] * v[i];
  return sqrt(sum);
}

void normalize(double* v, int m, int n) {
  const double length = norm(v, m * n);
  if (length == 0.0) return;
  const int count = m * n;
  for (int i = 0; i < count; i++) v[i] /= length;
}

double dotProd(const double* a, const double* b, int m, int n) {
  const int count = m * n;
  double sum = 0.0;
  for (int i = 0; i < count; i++) sum += a[i] * b[i];
  return sum;
}

void matrixInverseK(const double* K, double* Kinv) {
  if (Kinv == K) warnInPlace("matrixInverseK");
  const double fx = K[0], s = K[1], cx = K[2], fy = K[4], cy = K[5];
  Kinv[0] = 1.0 / fx;
  Kinv[1] = -s / (fx * fy);
  Kinv[2] = -(cx * fy - s * cy) / (fx * fy);
  Kinv[3] = 0.0;
  Kinv[4] = 1.0 / fy;
  Kinv[5] = -cy / fy;
  Kinv[6] = 0.0;
  Kinv[7] = 0.0;
  Kinv[8] = 1.0;
}

double detSymm6x6(const double* A) {
  // Laplace expansion along rows 0-2: the sum over the 20 column triples S of
  // sign(S) * det(A[0..2, S]) * det(A[3..5, complement of S]). Entries are read
  // from the upper triangle only, so the lower one may hold anything.
  auto a = [A](int i, int j) { return i <= j ? A[i * 6 + j] : A[j * 6 + i]; };
  auto det3 = [&a](int r, const int* c) {
    return a(r, c[0]) * (a(r + 1, c[1]) * a(r + 2, c[2]) - a(r + 1, c[2]) * a(r + 2, c[1])) -
           a(r, c[1]) * (a(r + 1, c[0]) * a(r + 2, c[2]) - a(r + 1, c[2]) * a(r + 2, c[0])) +
           a(r, c[2]) * (a(r + 1, c[0]) * a(r + 2, c[1]) - a(r + 1, c[1]) * a(r + 2, c[0]));
  };
  double det = 0.0;
  for (int c0 = 0; c0 < 6; c0++) {
    for (int c1 = c0 + 1; c1 < 6; c1++) {
      for (int c2 = c1 + 1; c2 < 6; c2++) {
        const int upper[3] = {c0, c1, c2};
        int lower[3], nLower = 0;
        for (int c = 0; c < 6; c++) {
          if (c != c0 && c != c1 && c != c2) lower[nLower++] = c;
        }
        const double sign = ((c0 + c1 + c2 + 1) % 2 == 0) ? 1.0 : -1.0;
        det += sign * det3(0, upper) * det3(3, lower);
      }
    }
  }
  return det;
}

double myMOD(double x, double y) {
  if (y == 0.0) return x;
  return x - floor(x / y) * y;
}

namespace {

template <typename T>
void convertToChar(const T* src, unsigned char* dst, int width, int height, double scale,
                   double offset) {
  const int count = width * height;
  for (int i = 0; i < count; i++) {
    const double v = (double)src[i] * scale + offset;
    // !(v > 0) also catches NaN.
    dst[i] = !(v > 0.0) ? 0 : (v >= 255.0 ? 255 : (unsigned char)v);
  }
}

}  // namespace

void convertDoubleToChar(const double* src, unsigned char* dst, int width, int height, double scale,
                         double offset) {
  convertToChar(src, dst, width, height, scale, offset);
}

void convertShortToChar(const short* src, unsigned char* dst, int width, int height, double scale,
                        double offset) {
  convertToChar(src, dst, width, height, scale, offset);
}

// ================================================================ fixed size
void matrixProduct333(const double* A, const double* B, double* C) {
  checkAlias("matrixProduct333", C, A, B);
  C[0] = A[0] * B[0] + A[1] * B[3] + A[2] * B[6];
  C[1] = A[0] * B[1] + A[1] * B[4] + A[2] * B[7];
  C[2] = A[0] * B[2] + A[1] * B[5] + A[2] * B[8];
  C[3] = A[3] * B[0] + A[4] * B[3] + A[5] * B[6];
  C[4] = A[3] * B[1] + A[4] * B[4] + A[5] * B[7];
  C[5] = A[3] * B[2] + A[4] * B[5] + A[5] * B[8];
  C[6] = A[6] * B[0] + A[7] * B[3] + A[8] * B[6];
  C[7] = A[6] * B[1] + A[7] * B[4] + A[8] * B[7];
  C[8] = A[6] * B[2] + A[7] * B[5] + A[8] * B[8];
}

void matrixProduct344(const double* A, const double* B, double* C) {
  checkAlias("matrixProduct344", C, A, B);
  C[0] = A[0] * B[0] + A[1] * B[4] + A[2] * B[8] + A[3] * B[12];
  C[1] = A[0] * B[1] + A[1] * B[5] + A[2] * B[9] + A[3] * B[13];
  C[2] = A[0] * B[2] + A[1] * B[6] + A[2] * B[10] + A[3] * B[14];
  C[3] = A[0] * B[3] + A[1] * B[7] + A[2] * B[11] + A[3] * B[15];
  C[4] = A[4] * B[0] + A[5] * B[4] + A[6] * B[8] + A[7] * B[12];
  C[5] = A[4] * B[1] + A[5] * B[5] + A[6] * B[9] + A[7] * B[13];
  C[6] = A[4] * B[2] + A[5] * B[6] + A[6] * B[10] + A[7] * B[14];
  C[7] = A[4] * B[3] + A[5] * B[7] + A[6] * B[11] + A[7] * B[15];
  C[8] = A[8] * B[0] + A[9] * B[4] + A[10] * B[8] + A[11] * B[12];
  C[9] = A[8] * B[1] + A[9] * B[5] + A[10] * B[9] + A[11] * B[13];
  C[10] = A[8] * B[2] + A[9] * B[6] + A[10] * B[10] + A[11] * B[14];
  C[11] = A[8] * B[3] + A[9] * B[7] + A[10] * B[11] + A[11] * B[15];
}

void matrixProduct444(const double* A, const double* B, double* C) {
  checkAlias("matrixProduct444", C, A, B);
  C[0] = A[0] * B[0] + A[1] * B[4] + A[2] * B[8] + A[3] * B[12];
  C[1] = A[0] * B[1] + A[1] * B[5] + A[2] * B[9] + A[3] * B[13];
  C[2] = A[0] * B[2] + A[1] * B[6] + A[2] * B[10] + A[3] * B[14];
  C[3] = A[0] * B[3] + A[1] * B[7] + A[2] * B[11] + A[3] * B[15];
  C[4] = A[4] * B[0] + A[5] * B[4] + A[6] * B[8] + A[7] * B[12];
  C[5] = A[4] * B[1] + A[5] * B[5] + A[6] * B[9] + A[7] * B[13];
  C[6] = A[4] * B[2] + A[5] * B[6] + A[6] * B[10] + A[7] * B[14];
  C[7] = A[4] * B[3] + A[5] * B[7] + A[6] * B[11] + A[7] * B[15];
  C[8] = A[8] * B[0] + A[9] * B[4] + A[10] * B[8] + A[11] * B[12];
  C[9] = A[8] * B[1] + A[9] * B[5] + A[10] * B[9] + A[11] * B[13];
  C[10] = A[8] * B[2] + A[9] * B[6] + A[10] * B[10] + A[11] * B[14];
  C[11] = A[8] * B[3] + A[9] * B[7] + A[10] * B[11] + A[11] * B[15];
  C[12] = A[12] * B[0] + A[13] * B[4] + A[14] * B[8] + A[15] * B[12];
  C[13] = A[12] * B[1] + A[13] * B[5] + A[14] * B[9] + A[15] * B[13];
  C[14] = A[12] * B[2] + A[13] * B[6] + A[14] * B[10] + A[15] * B[14];
  C[15] = A[12] * B[3] + A[13] * B[7] + A[14] * B[11] + A[15] * B[15];
}

void matrixProduct661(const double* A, const double* B, double* C) {
  checkAlias("matrixProduct661", C, A, B);
  C[0] = A[0] * B[0] + A[1] * B[1] + A[2] * B[2] + A[3] * B[3] + A[4] * B[4] + A[5] * B[5];
  C[1] = A[6] * B[0] + A[7] * B[1] + A[8] * B[2] + A[9] * B[3] + A[10] * B[4] + A[11] * B[5];
  C[2] = A[12] * B[0] + A[13] * B[1] + A[14] * B[2] + A[15] * B[3] + A[16] * B[4] + A[17] * B[5];
  C[3] = A[18] * B[0] + A[19] * B[1] + A[20] * B[2] + A[21] * B[3] + A[22] * B[4] + A[23] * B[5];
  C[4] = A[24] * B[0] + A[25] * B[1] + A[26] * B[2] + A[27] * B[3] + A[28] * B[4] + A[29] * B[5];
  C[5] = A[30] * B[0] + A[31] * B[1] + A[32] * B[2] + A[33] * B[3] + A[34] * B[4] + A[35] * B[5];
}

void matrixProduct441(const double* A, const double* B, double* C) {
  checkAlias("matrixProduct441", C, A, B);
  C[0] = A[0] * B[0] + A[1] * B[1] + A[2] * B[2] + A[3] * B[3];
  C[1] = A[4] * B[0] + A[5] * B[1] + A[6] * B[2] + A[7] * B[3];
  C[2] = A[8] * B[0] + A[9] * B[1] + A[10] * B[2] + A[11] * B[3];
  C[3] = A[12] * B[0] + A[13] * B[1] + A[14] * B[2] + A[15] * B[3];
}

void matrixProduct331(const double* A, const double* B, double* C) {
  checkAlias("matrixProduct331", C, A, B);
  C[0] = A[0] * B[0] + A[1] * B[1] + A[2] * B[2];
  C[1] = A[3] * B[0] + A[4] * B[1] + A[5] * B[2];
  C[2] = A[6] * B[0] + A[7] * B[1] + A[8] * B[2];
}

void matrixProduct341(const double* A, const double* B, double* C) {
  checkAlias("matrixProduct341", C, A, B);
  C[0] = A[0] * B[0] + A[1] * B[1] + A[2] * B[2] + A[3] * B[3];
  C[1] = A[4] * B[0] + A[5] * B[1] + A[6] * B[2] + A[7] * B[3];
  C[2] = A[8] * B[0] + A[9] * B[1] + A[10] * B[2] + A[11] * B[3];
}

void matrixProduct231(const double* A, const double* B, double* C) {
  checkAlias("matrixProduct231", C, A, B);
  C[0] = A[0] * B[0] + A[1] * B[1] + A[2] * B[2];
  C[1] = A[3] * B[0] + A[4] * B[1] + A[5] * B[2];
}

void matrixProduct221(const double* A, const double* B, double* C) {
  checkAlias("matrixProduct221", C, A, B);
  C[0] = A[0] * B[0] + A[1] * B[1];
  C[1] = A[2] * B[0] + A[3] * B[1];
}

void matrixTranspose33(const double* A, double* B) {
  if (A == B) warnInPlace("matrixTranspose33");
  B[0] = A[0];
  B[1] = A[3];
  B[2] = A[6];
  B[3] = A[1];
  B[4] = A[4];
  B[5] = A[7];
  B[6] = A[2];
  B[7] = A[5];
  B[8] = A[8];
}

void matrixSum33(const double* A, const double* B, double* C) { matrixSum(A, B, C, 3, 3); }
void matrixSub33(const double* A, const double* B, double* C) { matrixSub(A, B, C, 3, 3); }

double dotProd4(const double* a, const double* b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2] + a[3] * b[3];
}

void crossProd(const double* a, const double* b, double* c) {
  c[0] = a[1] * b[2] - a[2] * b[1];
  c[1] = a[2] * b[0] - a[0] * b[2];
  c[2] = a[0] * b[1] - a[1] * b[0];
}

void outerProd3(const double* a, const double* b, double* C) {
  for (int i = 0; i < 3; i++) {
    C[3 * i] = a[i] * b[0];
    C[3 * i + 1] = a[i] * b[1];
    C[3 * i + 2] = a[i] * b[2];
  }
}

void skewMatFromVec(const double* w, double* S) {
  S[0] = 0.0;
  S[1] = -w[2];
  S[2] = w[1];
  S[3] = w[2];
  S[4] = 0.0;
  S[5] = -w[0];
  S[6] = -w[1];
  S[7] = w[0];
  S[8] = 0.0;
}

void skewMatToVec(const double* S, double* v) {
  v[0] = S[7];
  v[1] = S[2];
  v[2] = S[3];
}

// ================================================================ rotations and poses
void matrixRvecToRmat(const double* rvec, double* R) {
  const double theta = norm(rvec, 3);
  if (theta < kRodriguesEps) {
    matrixIdentity(R, 3);
    return;
  }
  const double c = cos(theta), s = sin(theta), c1 = 1.0 - c;
  const double k[3] = {rvec[0] / theta, rvec[1] / theta, rvec[2] / theta};
  double kkT[9], K[9];
  outerProd3(k, k, kkT);
  skewMatFromVec(k, K);
  for (int i = 0; i < 9; i++) R[i] = c1 * kkT[i] + s * K[i];
  R[0] += c;
  R[4] += c;
  R[8] += c;
}

int matrixRmatToRvec(const double* R, double* rvec) {
  double r[3] = {R[7] - R[5], R[2] - R[6], R[3] - R[1]};
  const double s = sqrt((r[0] * r[0] + r[1] * r[1] + r[2] * r[2]) * 0.25);
  double c = (R[0] + R[4] + R[8] - 1.0) * 0.5;
  c = c > 1.0 ? 1.0 : (c < -1.0 ? -1.0 : c);
  const double theta = acos(c);

  if (s >= 1e-5) {
    const double f = theta / (2.0 * s);
    for (int i = 0; i < 3; i++) rvec[i] = r[i] * f;
  } else if (c > 0.0) {
    rvec[0] = rvec[1] = rvec[2] = 0.0;
  } else {
    // Angle near pi: the axis comes from the diagonal, its signs from the
    // off-diagonal entries.
    r[0] = sqrt(fmax((R[0] + 1.0) * 0.5, 0.0));
    r[1] = sqrt(fmax((R[4] + 1.0) * 0.5, 0.0)) * (R[1] < 0.0 ? -1.0 : 1.0);
    r[2] = sqrt(fmax((R[8] + 1.0) * 0.5, 0.0)) * (R[2] < 0.0 ? -1.0 : 1.0);
    if (fabs(r[1]) > fabs(r[0]) && fabs(r[2]) > fabs(r[0]) && (r[1] * r[2] > 0.0) != (R[5] > 0.0))
      r[2] = -r[2];
    const double f = theta / norm(r, 3);
    for (int i = 0; i < 3; i++) rvec[i] = r[i] * f;
  }
  return 0;
}

void RotFromEuler(double* R, double a, double b, double c) {
  a *= kDegToRad;
  b *= kDegToRad;
  c *= kDegToRad;
  const double ca = cos(a), sa = sin(a), cb = cos(b), sb = sin(b), cc = cos(c), sc = sin(c);
  const double Rx[9] = {1, 0, 0, 0, ca, sa, 0, -sa, ca};
  const double Ry[9] = {cb, 0, -sb, 0, 1, 0, sb, 0, cb};
  const double Rz[9] = {cc, sc, 0, -sc, cc, 0, 0, 0, 1};
  double RxRy[9];
  matrixProduct333(Rx, Ry, RxRy);
  matrixProduct333(Rz, RxRy, R);
}

void TfromEuler(double* T, double a, double b, double c, double tx, double ty, double tz) {
  double R[9];
  const double t[3] = {tx, ty, tz};
  RotFromEuler(R, a, b, c);
  TfromRotTransl(R, t, T);
}

void TfromRotTransl(const double* R, const double* t, double* T) {
  T[0] = R[0];
  T[1] = R[1];
  T[2] = R[2];
  T[3] = t[0];
  T[4] = R[3];
  T[5] = R[4];
  T[6] = R[5];
  T[7] = t[1];
  T[8] = R[6];
  T[9] = R[7];
  T[10] = R[8];
  T[11] = t[2];
  T[12] = 0.0;
  T[13] = 0.0;
  T[14] = 0.0;
  T[15] = 1.0;
}

void rotTranslFromT(const double* T, double* R, double* t) {
  R[0] = T[0];
  R[1] = T[1];
  R[2] = T[2];
  R[3] = T[4];
  R[4] = T[5];
  R[5] = T[6];
  R[6] = T[8];
  R[7] = T[9];
  R[8] = T[10];
  t[0] = T[3];
  t[1] = T[7];
  t[2] = T[11];
}

void TfromTwist(const double* twist, double* T) {
  double w[3] = {twist[0] * kDegToRad, twist[1] * kDegToRad, twist[2] * kDegToRad};
  double v[3] = {twist[3], twist[4], twist[5]};
  const double theta = norm(w, 3);
  matrixIdentity(T, 4);
  if (theta <= kTwistEps) {
    T[3] = v[0];
    T[7] = v[1];
    T[11] = v[2];
    return;
  }
  double R[9];
  matrixRvecToRmat(w, R);
  const double t0[3] = {0.0, 0.0, 0.0};
  TfromRotTransl(R, t0, T);

  // With u = w/theta and v' = v/theta: t = (I - R)(u x v') + theta u u^T v'.
  matrixScale(v, v, 1.0 / theta, 3, 1);
  matrixScale(w, w, 1.0 / theta, 3, 1);
  double S[9], Sv[3], RminusI[9], p[3], uuT[9], q[3];
  const double I[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  skewMatFromVec(w, S);
  matrixProduct331(S, v, Sv);
  matrixSub33(R, I, RminusI);
  matrixProduct331(RminusI, Sv, p);
  matrixScale(p, p, -1.0, 3, 1);
  outerProd3(w, w, uuT);
  matrixScale(uuT, uuT, theta, 3, 3);
  matrixProduct331(uuT, v, q);
  T[3] = q[0] + p[0];
  T[7] = q[1] + p[1];
  T[11] = q[2] + p[2];
}

namespace {

// v = J^-1 t for the rotation of unit axis u and angle theta in (0, pi]:
// J^-1 = I - theta/2 [u]x + c [u]x^2 with c = 1 - (theta/2) cot(theta/2).
// J is regular up to 2 pi, so this needs no cut-off; below 1e-3 rad c comes
// from its series, which avoids the cancellation of 1 - (theta/2) cot(theta/2).
void translationLogClosedForm(const double* u, double theta, const double* t, double* v) {
  const double half = 0.5 * theta;
  const double c = theta < 1e-3 ? theta * theta / 12.0 + theta * theta * theta * theta / 720.0
                                : 1.0 - half * cos(half) / sin(half);
  double S[9], St[3], SSt[3];
  skewMatFromVec(u, S);
  matrixProduct331(S, t, St);
  matrixProduct331(S, St, SSt);
  for (int i = 0; i < 3; i++) v[i] = t[i] - half * St[i] + c * SSt[i];
}

}  // namespace

int TwistFromT(const double* T, double* twist) {
  double R[9], t[3], r[3];
  rotTranslFromT(T, R, t);
  matrixRmatToRvec(R, r);
  const double theta = norm(r, 3);
  if (theta < kTwistEps) {
    twist[0] = twist[1] = twist[2] = 0.0;
    twist[3] = t[0];
    twist[4] = t[1];
    twist[5] = t[2];
    return 0;
  }
  const double u[3] = {r[0] / theta, r[1] / theta, r[2] / theta};

  // M = (I - R)[u]x + theta u u^T maps v' = v/theta to t (see TfromTwist).
  double ImR[9], S[9], M[9], uuT[9];
  const double I[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  matrixSub33(I, R, ImR);
  skewMatFromVec(u, S);
  matrixProduct333(ImR, S, M);
  outerProd3(u, u, uuT);
  for (int i = 0; i < 9; i++) M[i] += theta * uuT[i];

  // Solve M x = t through the SVD, dropping near-singular directions. M has
  // a repeated pair of singular values on which the SVD's exact negligibility
  // test can stall; the closed form then gives v = x * theta directly.
  double W[3], Ut[9], V[9], work[12], y[3], x[3];
  int index[3];
  if (matrixSVD(M, 3, 3, W, Ut, V, 1, 0, work, index) == 0) {
    matrixProduct331(Ut, t, y);
    for (int i = 0; i < 3; i++) y[i] = W[i] > kTwistEps ? y[i] / W[i] : 0.0;
    matrixProduct331(V, y, x);
    for (int i = 0; i < 3; i++) x[i] *= theta;
  } else {
    translationLogClosedForm(u, theta, t, x);
  }

  for (int i = 0; i < 3; i++) {
    twist[i] = u[i] * theta * kRadToDeg;
    twist[3 + i] = x[i];
  }
  return 0;
}

void TfromAngleAxis(const double* aa, double* T) {
  const double r[3] = {aa[0] * kDegToRad, aa[1] * kDegToRad, aa[2] * kDegToRad};
  double R[9];
  matrixRvecToRmat(r, R);
  TfromRotTransl(R, aa + 3, T);
}

int AngleAxisFromT(const double* T, double* aa) {
  double R[9], r[3];
  rotTranslFromT(T, R, aa + 3);
  const int code = matrixRmatToRvec(R, r);
  for (int i = 0; i < 3; i++) aa[i] = r[i] * kRadToDeg;
  return code;
}

namespace {

void rightMultiply(double* T, const double* dT) {
  double result[16];
  matrixProduct444(T, dT, result);
  matrixCopy(result, T, 4, 4);
}

}  // namespace

void updatePoseTwist(double* T, const double* twist) {
  double dT[16];
  TfromTwist(twist, dT);
  rightMultiply(T, dT);
}

void updatePoseAngleAxis(double* T, const double* aa) {
  double dT[16];
  TfromAngleAxis(aa, dT);
  rightMultiply(T, dT);
}

void transformPoint3d(const double* T, const double* X, double* Y) {
  Y[0] = T[0] * X[0] + T[1] * X[1] + T[2] * X[2] + T[3];
  Y[1] = T[4] * X[0] + T[5] * X[1] + T[6] * X[2] + T[7];
  Y[2] = T[8] * X[0] + T[9] * X[1] + T[10] * X[2] + T[11];
}

int projectPoint(const double* K, const double* X, double* uv) {
  double p[3];
  matrixProduct331(K, X, p);
  if (p[2] == 0.0) return -15;
  uv[0] = p[0] / p[2];
  uv[1] = p[1] / p[2];
  return 0;
}

int transformAndProjectPoint(const double* K, const double* T, const double* X, double* uv) {
  double Y[3];
  transformPoint3d(T, X, Y);
  return projectPoint(K, Y, uv);
}

void inverseTransform(const double* T, double* Tinv) {
  double R[9], t[3], Rt[9], minusRtT[3];
  rotTranslFromT(T, R, t);
  matrixTranspose33(R, Rt);
  matrixProduct331(Rt, t, minusRtT);
  matrixScale(minusRtT, minusRtT, -1.0, 3, 1);
  TfromRotTransl(Rt, minusRtT, Tinv);
}

void adjustPoseVector_rodrigues_invZ(const double* in, double* out, bool forward, double scale,
                                     double zNear, double zFar, double gainX, double gainY,
                                     double divisor, bool perspective, bool rotationFirst) {
  const double A = 2.0 * zFar * zNear / (zNear - zFar) * scale;
  const double B = (zFar + zNear) / (zNear - zFar) * scale;
  const int r0 = rotationFirst ? 0 : 3;
  const int t0 = rotationFirst ? 3 : 0;
  for (int i = 0; i < 3; i++) out[r0 + i] = in[r0 + i];
  const double x = in[t0], y = in[t0 + 1], z = in[t0 + 2];
  if (forward) {
    const double zInv = A / (z + B);
    out[t0 + 2] = zInv;
    if (perspective) {
      out[t0] = x * zInv * gainX / (divisor * scale);
      out[t0 + 1] = y * zInv * gainY / (divisor * scale);
    } else {
      out[t0] = x * gainX / scale;
      out[t0 + 1] = y * gainY / scale;
    }
  } else {
    out[t0 + 2] = A / z - B;
    if (perspective) {
      out[t0] = x / (z * gainX / (divisor * scale));
      out[t0 + 1] = y / (z * gainY / (divisor * scale));
    } else {
      out[t0] = x * scale / gainX;
      out[t0 + 1] = y * scale / gainY;
    }
  }
}

}  // namespace ZOTtracker
