# Not uploaded to Debian, so there is no packaging request to close.
nimbractl: initial-upload-closes-no-bugs
