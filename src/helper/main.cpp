// Entry point of tavra-helper; the Helper class arrives with the helper process.
int main() { return 0; }
