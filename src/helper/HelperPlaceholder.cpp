namespace tavra {}
