// A program that does nothing: what any start costs.
int main(void)
{
    return 0;
}
