/// @file
/// Dense matrix and vector routines, rotations, poses and twists.
///
/// Matrices are caller-owned row-major double arrays: element (i, j) of an
/// m x n matrix is at i*n + j; vectors are n x 1. Nothing here allocates,
/// keeps state or throws, and no routine checks dimensions or null pointers.
/// Outputs must not alias inputs: the products, the transposes and
/// matrixInverseK print "####### ERROR: <name> not implemented for in-place
/// operation!" (matrixTranspose: "ERROR: matrixTranspose not implemented for
/// in-place operation!!!") when the output is an input, and then compute
/// anyway, so the caller gets whatever the aliased computation yields.
///
/// Poses are 4 x 4 transforms [R t; 0 0 0 1] (translation at 3, 7, 11) mapping
/// X' = R*X + t. Twists are (wx, wy, wz, vx, vy, vz) with the rotation part in
/// degrees; increments compose from the right: T <- T * exp(twist).
#pragma once

namespace ZOTtracker {

constexpr double ZOT_PI = 3.141592653589793;

// ================================================================ general size
/// C = A*B with A m x k and B k x n. C is zeroed first, then accumulated over
/// rows i, columns j, inner index l.
void matrixProduct(const double* A, const double* B, double* C, int m, int k, int n);
/// B = A^T, A m x n, B n x m.
void matrixTranspose(const double* A, double* B, int m, int n);
/// Copies m*n doubles from A to B.
void matrixCopy(const double* A, double* B, int m, int n);
/// Copies width*height bytes.
void imageCopy(const unsigned char* src, unsigned char* dst, int width, int height);
/// Sets m*n doubles to 0.
void matrixZero(double* A, int m, int n);
/// Sets the n x n matrix A to the identity.
void matrixIdentity(double* A, int n);
/// C = A + B, element-wise over m*n.
void matrixSum(const double* A, const double* B, double* C, int m, int n);
/// C = A - B, element-wise over m*n.
void matrixSub(const double* A, const double* B, double* C, int m, int n);
/// B = factor*A over m*n elements; B may equal A.
void matrixScale(const double* A, double* B, double factor, int m, int n);
/// True when all n values are finite (no NaN, no infinity); false for a null array.
bool isFiniteArray(const double* v, int n);
/// Euclidean norm of n values.
double norm(const double* v, int n);
/// Divides the m*n values by their norm in place; a zero norm leaves v as it is.
void normalize(double* v, int m, int n);
/// Sum of a[i]*b[i] over m*n values.
double dotProd(const double* a, const double* b, int m, int n);
/// Closed-form inverse of K = [fx s cx; 0 fy cy; 0 0 1]; only fx, s, cx, fy,
/// cy are read (the last row is assumed to be 0 0 1).
void matrixInverseK(const double* K, double* Kinv);
/// Determinant of a symmetric 6 x 6 matrix; reads only the upper triangle.
double detSymm6x6(const double* A);
/// Floored modulus x - floor(x/y)*y (sign of y); y = 0 returns x.
double myMOD(double x, double y);
/// Per pixel v = src*scale + offset: 0 when v <= 0 or NaN, 255 when v >= 255,
/// otherwise v truncated toward zero (no rounding).
void convertDoubleToChar(const double* src, unsigned char* dst, int width, int height, double scale,
                         double offset);
void convertShortToChar(const short* src, unsigned char* dst, int width, int height, double scale,
                        double offset);

// ================================================================ fixed size
/// matrixProductRKC: A is R x K, B is K x C, C = A*B is R x C; written out.
void matrixProduct333(const double* A, const double* B, double* C);
void matrixProduct344(const double* A, const double* B, double* C);
void matrixProduct444(const double* A, const double* B, double* C);
void matrixProduct661(const double* A, const double* B, double* C);
void matrixProduct441(const double* A, const double* B, double* C);
void matrixProduct331(const double* A, const double* B, double* C);
void matrixProduct341(const double* A, const double* B, double* C);
void matrixProduct231(const double* A, const double* B, double* C);
void matrixProduct221(const double* A, const double* B, double* C);
/// B = A^T for 3 x 3.
void matrixTranspose33(const double* A, double* B);
/// C = A +/- B for 3 x 3 matrices and for 3-vectors.
void matrixSum33(const double* A, const double* B, double* C);
void matrixSub33(const double* A, const double* B, double* C);
/// (The 3-vector ones are defined here: the per-sample loops call them.)
inline void matrixSum31(const double* A, const double* B, double* C) {
  for (int i = 0; i < 3; i++) C[i] = A[i] + B[i];
}
inline void matrixSub31(const double* A, const double* B, double* C) {
  for (int i = 0; i < 3; i++) C[i] = A[i] - B[i];
}
inline double dotProd3(const double* a, const double* b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
double dotProd4(const double* a, const double* b);
/// c = a x b (right-handed).
void crossProd(const double* a, const double* b, double* c);
/// C(i, j) = a_i * b_j.
void outerProd3(const double* a, const double* b, double* C);
/// S = [0 -z y; z 0 -x; -y x 0] for w = (x, y, z), so that S*p = w x p.
void skewMatFromVec(const double* w, double* S);
/// v = (S[7], S[2], S[3]); the other entries are not read.
void skewMatToVec(const double* S, double* v);

// ================================================================ rotations and poses
/// Rodrigues: rotation matrix of a rotation vector (radians); |r| below 2^-52
/// gives the identity.
void matrixRvecToRmat(const double* rvec, double* R);
/// Inverse Rodrigues (radians), with the special branch for angles near pi;
/// R is not re-orthonormalised. Returns 0.
int matrixRmatToRvec(const double* R, double* rvec);
/// R = Rz(c)*Rx(a)*Ry(b) from angles in degrees, each elementary matrix the
/// transpose of the usual active rotation. The argument order (a about x,
/// b about y, c about z) differs from the factor order on purpose.
void RotFromEuler(double* R, double a, double b, double c);
/// T = [RotFromEuler(a, b, c) (tx, ty, tz); 0 0 0 1].
void TfromEuler(double* T, double a, double b, double c, double tx, double ty, double tz);
/// Assembles T from R (3 x 3) and t (3).
void TfromRotTransl(const double* R, const double* t, double* T);
/// Splits T into R (3 x 3) and t (3).
void rotTranslFromT(const double* T, double* R, double* t);
/// SE(3) exponential of a twist (rotation in degrees). Below 2^-26 rad the
/// rotation part is ignored and T is a pure translation by v.
void TfromTwist(const double* twist, double* T);
/// SE(3) logarithm, rotation part in degrees; the coupling matrix is inverted
/// through matrixSVD with directions below 2^-26 dropped. That matrix has a
/// repeated pair of singular values on which the SVD stalls for a few poses in
/// a thousand; those get v = J^-1 t in closed form instead. Returns 0 for
/// every rotation, TfromTwist(twist) reproducing T to rounding.
int TwistFromT(const double* T, double* twist);
/// T from (rx, ry, rz, tx, ty, tz): rotation vector in degrees, translation as is.
void TfromAngleAxis(const double* aa, double* T);
/// Angle-axis vector (degrees, translation) of T. Returns 0.
int AngleAxisFromT(const double* T, double* aa);
/// T <- T * TfromTwist(twist): the increment is in the object's own frame.
void updatePoseTwist(double* T, const double* twist);
/// T <- T * TfromAngleAxis(aa).
void updatePoseAngleAxis(double* T, const double* aa);
/// Y = R*X + t; only the first three rows of T are read.
void transformPoint3d(const double* T, const double* X, double* Y);
/// uv = (p0/p2, p1/p2) with p = K*X (skew included). Returns 0, or -15 with uv
/// unchanged when p2 is exactly 0. Points behind the camera are projected.
int projectPoint(const double* K, const double* X, double* uv);
/// projectPoint(K, transformPoint3d(T, X)); returns projectPoint's code.
int transformAndProjectPoint(const double* K, const double* T, const double* X, double* uv);
/// Tinv = [R^T, -R^T t; 0 0 0 1]. Tinv may equal T.
void inverseTransform(const double* T, double* Tinv);
/// Converts a pose 6-vector between metric depth z and the inverse-depth
/// coordinate z' = A/(z + B), A = 2*zFar*zNear/(zNear - zFar)*scale,
/// B = (zFar + zNear)/(zNear - zFar)*scale (forward = true), or back. x and y
/// are scaled by the focal gains, divided by depth when perspective is set.
/// The rotation vector passes unchanged; rotationFirst selects the layout
/// (r, t) instead of (t, r). Input and output have the same layout.
void adjustPoseVector_rodrigues_invZ(const double* in, double* out, bool forward, double scale,
                                     double zNear, double zFar, double gainX, double gainY,
                                     double divisor, bool perspective, bool rotationFirst);

}  // namespace ZOTtracker
