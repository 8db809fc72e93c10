// Keeps the test support library non-empty when no helper sources exist.
