/* The limit for starting anything. */
int main(void) { return 0; }
