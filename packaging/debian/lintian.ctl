# Not uploaded to Debian, so there is no request for a package to close.
nimbractl: initial-upload-closes-no-bugs
